#include "sharedconfig/sharedfile.h"

#include <cwchar>

#include "com/guard.h"
#include "com/raii.h"
#include "helpers/helpers.h"

namespace ky::sharedfile {

HRESULT OpenFileMutex(IKyStdStrings* helper, const wchar_t* path, std::size_t length, HANDLE* mutex) {
    if (!helper || !path || !mutex) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        com::Bstr suffix(PathHashDigits(path, length).c_str());
        if (suffix.IsNull()) return E_OUTOFMEMORY;
        // Global and per user: one lock for all sessions of the machine, and
        // none shared with another user's processes.
        com::Bstr name;
        HRESULT hr = helper->CreateKernelObjectName(1, 1, suffix, name.Out());
        if (FAILED(hr)) return hr;
        HANDLE handle = ::CreateMutexW(nullptr, FALSE, name);
        if (!handle) return E_FAIL;
        *mutex = handle;
        return S_OK;
    });
}

HRESULT OpenFileMutex(const wchar_t* path, HANDLE* mutex) {
    if (!path || !mutex) return E_INVALIDARG;
    com::ComPtr<CCoKyHelpers> helper;
    HRESULT hr = CCoKyHelpers::Make(helper);
    if (FAILED(hr)) return hr;
    return OpenFileMutex(helper.Get(), path, std::wcslen(path), mutex);
}

namespace {

std::wstring PartialBackupPath(const wchar_t* path) { return BackupPath(path) + L".partial"; }

}  // namespace

bool BackUpBeforeWriteBack(const wchar_t* path) {
    const std::wstring partial = PartialBackupPath(path);
    if (!::CopyFileW(path, partial.c_str(), FALSE)) return false;
    // Only a complete copy ever carries the backup's name.
    if (!::MoveFileExW(partial.c_str(), BackupPath(path).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        ::DeleteFileW(partial.c_str());
        return false;
    }
    return true;
}

void EndWriteBack(const wchar_t* path) { ::DeleteFileW(BackupPath(path).c_str()); }

bool RestoreInterruptedWriteBack(const wchar_t* path) {
    ::DeleteFileW(PartialBackupPath(path).c_str());
    const std::wstring backup = BackupPath(path);
    if (::GetFileAttributesW(backup.c_str()) == INVALID_FILE_ATTRIBUTES) return false;
    return ::MoveFileExW(backup.c_str(), path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE;
}

}  // namespace ky::sharedfile
