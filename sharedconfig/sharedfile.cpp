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

}  // namespace ky::sharedfile
