#include "helpers/tempfolder.h"

#include <objbase.h>

#include <cstdio>
#include <cwchar>

#include "com/guard.h"
#include "com/raii.h"

namespace ky::tempfolder {

namespace {

struct OwnFolder {
    com::CriticalSection lock;
    std::wstring path;  // with its trailing backslash; empty while there is none
    com::Handle marker;
};

// Made when the library loads, not on first use: the folder is removed while
// the library detaches, no place to construct anything for the first time.
OwnFolder g_own;

OwnFolder& Own() { return g_own; }

HRESULT LastError() {
    DWORD error = ::GetLastError();
    return error ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

std::wstring WithBackslash(std::wstring path) {
    if (path.empty() || path.back() != L'\\') path += L'\\';
    return path;
}

// Deletes a file, read-only or not.
bool DeleteOneFile(const std::wstring& path) {
    if (::DeleteFileW(path.c_str())) return true;
    if (::GetLastError() != ERROR_ACCESS_DENIED) return false;
    DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_READONLY)) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    ::SetFileAttributesW(path.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
    return ::DeleteFileW(path.c_str()) != FALSE;
}

// Deletes everything inside `folder` but the file named `keep`. Goes on past
// failures (a file in use) and returns the first one.
HRESULT DeleteContents(const std::wstring& folder, const wchar_t* keep) {
    WIN32_FIND_DATAW found;
    HANDLE find = ::FindFirstFileW((folder + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) {
        DWORD error = ::GetLastError();
        return error == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(error);
    }
    HRESULT result = S_OK;
    do {
        const wchar_t* name = found.cFileName;
        if (std::wcscmp(name, L".") == 0 || std::wcscmp(name, L"..") == 0) continue;
        if (keep && ::lstrcmpiW(name, keep) == 0) continue;
        const std::wstring path = folder + name;
        HRESULT hr = S_OK;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            // A link to elsewhere is removed, never followed.
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) hr = DeleteContents(path + L"\\", nullptr);
            if (SUCCEEDED(hr) && !::RemoveDirectoryW(path.c_str())) hr = LastError();
        } else if (!DeleteOneFile(path)) {
            hr = LastError();
        }
        if (FAILED(hr) && SUCCEEDED(result)) result = hr;
    } while (::FindNextFileW(find, &found));
    ::FindClose(find);
    return result;
}

HRESULT CreateOwnFolder(OwnFolder& own) {
    wchar_t temp[MAX_PATH + 1];
    DWORD length = ::GetTempPathW(MAX_PATH + 1, temp);
    if (length == 0) return LastError();
    if (length > MAX_PATH) return HRESULT_FROM_WIN32(ERROR_BUFFER_OVERFLOW);
    // A cleaner may take a new folder before its marker is in place: then
    // start again under another name.
    for (int attempt = 0; attempt < 8; ++attempt) {
        GUID guid;
        HRESULT hr = ::CoCreateGuid(&guid);
        if (FAILED(hr)) return hr;
        wchar_t text[40];
        ::StringFromGUID2(guid, text, 40);
        const std::wstring folder = WithBackslash(temp) + kTempFolderPrefix + text + L"\\";
        if (!::CreateDirectoryW(folder.c_str(), nullptr)) {
            if (::GetLastError() == ERROR_ALREADY_EXISTS) continue;
            return LastError();
        }
        HANDLE marker = ::CreateFileW((folder + kOwnerMarkerName).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (marker == INVALID_HANDLE_VALUE) {
            DWORD error = ::GetLastError();
            ::RemoveDirectoryW(folder.c_str());
            if (error == ERROR_PATH_NOT_FOUND || error == ERROR_FILE_EXISTS) continue;
            return HRESULT_FROM_WIN32(error);
        }
        // The owner's process id, for people looking at the folder.
        char line[32];
        int size = std::snprintf(line, sizeof line, "%lu\r\n", static_cast<unsigned long>(::GetCurrentProcessId()));
        DWORD written = 0;
        ::WriteFile(marker, line, static_cast<DWORD>(size), &written, nullptr);
        own.marker.Attach(marker);
        own.path = folder;
        return S_OK;
    }
    return E_FAIL;
}

HRESULT EnsureOwnFolder(OwnFolder& own) { return own.path.empty() ? CreateOwnFolder(own) : S_OK; }

bool IsFileNamePart(const wchar_t* text) {
    if (!*text) return false;
    for (const wchar_t* c = text; *c; ++c)
        if (*c < 32 || std::wcschr(L"\\/:*?\"<>|", *c)) return false;
    // The system drops trailing dots and blanks, which would change the name.
    wchar_t last = text[std::wcslen(text) - 1];
    return last != L'.' && last != L' ';
}

}  // namespace

HRESULT GetFolder(std::wstring* folder) {
    return com::Guard([&] {
        OwnFolder& own = Own();
        com::Lock lock(own.lock);
        HRESULT hr = EnsureOwnFolder(own);
        if (SUCCEEDED(hr)) *folder = own.path;
        return hr;
    });
}

HRESULT CreateFileName(const wchar_t* extension, std::wstring* path) {
    bool renamed = false;
    if (extension && *extension) {
        if (*extension == L'.') ++extension;
        if (!IsFileNamePart(extension)) return E_INVALIDARG;
        renamed = true;
    }
    return com::Guard([&]() -> HRESULT {
        OwnFolder& own = Own();
        com::Lock lock(own.lock);
        HRESULT hr = EnsureOwnFolder(own);
        if (FAILED(hr)) return hr;
        for (int attempt = 0; attempt < 100; ++attempt) {
            wchar_t reserved[MAX_PATH];
            if (!::GetTempFileNameW(own.path.c_str(), L"ky", 0, reserved)) return LastError();
            if (!renamed) {
                *path = reserved;
                return S_OK;
            }
            std::wstring target = reserved;
            size_t dot = target.rfind(L'.');
            if (dot != std::wstring::npos && dot > target.rfind(L'\\')) target.resize(dot);
            target += L'.';
            target += extension;
            if (target.size() >= MAX_PATH) {
                ::DeleteFileW(reserved);
                return E_INVALIDARG;
            }
            if (::MoveFileW(reserved, target.c_str())) {
                *path = std::move(target);
                return S_OK;
            }
            DWORD error = ::GetLastError();
            ::DeleteFileW(reserved);
            if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) return HRESULT_FROM_WIN32(error);
        }
        return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
    });
}

HRESULT RemoveOwnFolder() {
    return com::Guard([&]() -> HRESULT {
        OwnFolder& own = Own();
        com::Lock lock(own.lock);
        if (own.path.empty()) return S_FALSE;
        HRESULT hr = DeleteContents(own.path, kOwnerMarkerName);
        if (FAILED(hr)) return hr;
        own.marker.Close();
        const std::wstring folder = std::move(own.path);
        own.path.clear();
        ::DeleteFileW((folder + kOwnerMarkerName).c_str());
        // Whatever stops the removal now, the folder is no longer this
        // process's: a cleaner finds it without a live owner.
        if (!::RemoveDirectoryW(folder.c_str())) return LastError();
        return S_OK;
    });
}

HRESULT RemoveFolderIfAbandoned(const wchar_t* folder) {
    if (!folder || !*folder) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        const std::wstring path = WithBackslash(folder);
        if (!DeleteOneFile(path + kOwnerMarkerName)) {
            DWORD error = ::GetLastError();
            if (error == ERROR_SHARING_VIOLATION) return S_FALSE;
            if (error != ERROR_FILE_NOT_FOUND) return HRESULT_FROM_WIN32(error);
        }
        HRESULT hr = DeleteContents(path, nullptr);
        if (FAILED(hr)) return hr;
        if (!::RemoveDirectoryW(path.c_str())) return LastError();
        return S_OK;
    });
}

}  // namespace ky::tempfolder
