#include "helpers/helpers.h"

#include <shlobj.h>

#include <string>

#include "com/guard.h"
#include "com/raii.h"
#include "helpers/proppageorder.h"
#include "helpers/tempfolder.h"

namespace ky {

namespace {

constexpr wchar_t kSettingsKey[] = L"Software\\Norvane\\Tessaly 3\\Settings";
// Read and write: a caller without write access to the machine's key falls
// through to the user's.
constexpr REGSAM kSettingsAccess = 0x2001F;

HRESULT ReturnText(const std::wstring& text, BSTR* result) {
    BSTR copy = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (!copy) return E_OUTOFMEMORY;
    *result = copy;
    return S_OK;
}

std::wstring WithBackslash(std::wstring path) {
    if (path.empty() || path.back() != L'\\') path += L'\\';
    return path;
}

bool ReadRoamingSetting() {
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
        com::RegKey key;
        if (key.Open(root, kSettingsKey, kSettingsAccess) != ERROR_SUCCESS) continue;
        DWORD value = 0;
        DWORD size = sizeof value;
        if (::RegQueryValueExW(key.Get(), L"EnableApplicationDataRoaming", nullptr, nullptr,
                               reinterpret_cast<BYTE*>(&value), &size) == ERROR_SUCCESS &&
            size == sizeof value)
            return value != 0;
    }
    return false;
}

// Decided once: the folders must not move under a running process.
bool RoamingEnabled() {
    static const bool roaming = ReadRoamingSetting();
    return roaming;
}

HRESULT ShellFolder(int csidl, std::wstring* path) {
    wchar_t buffer[MAX_PATH] = {};
    HRESULT hr = ::SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, buffer);
    if (FAILED(hr)) return hr;
    *path = buffer;  // cut at the terminator
    return S_OK;
}

// "CommonFilesDir" of the system, else the shell's folder.
HRESULT CommonFilesFolder(std::wstring* path) {
    com::RegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", KEY_QUERY_VALUE) ==
        ERROR_SUCCESS) {
        wchar_t value[MAX_PATH + 1] = {};
        DWORD size = MAX_PATH * sizeof(wchar_t);
        DWORD type = 0;
        if (::RegQueryValueExW(key.Get(), L"CommonFilesDir", nullptr, &type, reinterpret_cast<BYTE*>(value), &size) ==
                ERROR_SUCCESS &&
            (type == REG_SZ || type == REG_EXPAND_SZ) && value[0]) {
            if (type == REG_SZ) {
                *path = value;
                return S_OK;
            }
            wchar_t expanded[MAX_PATH];
            DWORD length = ::ExpandEnvironmentStringsW(value, expanded, MAX_PATH);
            if (length > 0 && length <= MAX_PATH) {
                *path = expanded;
                return S_OK;
            }
        }
    }
    return ShellFolder(CSIDL_PROGRAM_FILES_COMMON, path);
}

// A resource identifier from a VARIANT: a name, or the low 16 bits of an integer.
HRESULT ResourceId(const VARIANT* value, const wchar_t** id) {
    const VARTYPE type = V_VT(value);
    if (type == VT_BSTR) {
        if (!V_BSTR(value)) return E_INVALIDARG;
        *id = V_BSTR(value);
        return S_OK;
    }
    // Signed and unsigned integers of a size share their storage.
    ULONG number = 0;
    if (type == VT_I2 || type == VT_UI2)
        number = V_UI2(value);
    else if (type == VT_I4 || type == VT_UI4 || type == VT_INT || type == VT_UINT)
        number = V_UI4(value);
    else
        return E_INVALIDARG;
    *id = MAKEINTRESOURCEW(LOWORD(number));
    return S_OK;
}

}  // namespace

void CCoKyHelpers::ObjectMain(bool starting) {
    // Nothing of this library can use the folder once it unloads.
    if (!starting) tempfolder::RemoveOwnFolder();
}

HRESULT CCoKyHelpers::FinalConstruct() {
    return CCoKyPropPageOrderer::CreateInstance(ControllingUnknown(), IID_IUnknown, &m_orderer);
}

HRESULT CCoKyHelpers::QueryOther(REFIID riid, void** ppv) {
    if (IsEqualIID(riid, IID_IKyPropPageOrder) && m_orderer) return m_orderer->QueryInterface(riid, ppv);
    return E_NOINTERFACE;
}

STDMETHODIMP CCoKyHelpers::CreateKernelObjectName(long bTerminalGlobal, long bIncludeUserName, BSTR bstrSuffix,
                                                  BSTR* pbstrName) {
    if (!bstrSuffix || ::SysStringLen(bstrSuffix) == 0 || !pbstrName) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        OSVERSIONINFOW version = {};
        version.dwOSVersionInfoSize = sizeof version;
        if (!::GetVersionExW(&version) || version.dwPlatformId != VER_PLATFORM_WIN32_NT) return E_FAIL;
        std::wstring name;
        // Systems with terminal services have per-session namespaces.
        if (version.dwMajorVersion > 4) name = bTerminalGlobal ? L"Global\\" : L"Local\\";
        if (bIncludeUserName) {
            wchar_t user[257];
            DWORD size = 257;
            if (!::GetUserNameW(user, &size)) return E_FAIL;
            name += user;
        }
        name.append(bstrSuffix, ::SysStringLen(bstrSuffix));
        return ReturnText(name, pbstrName);
    });
}

STDMETHODIMP CCoKyHelpers::LoadResource(VARIANT* pvType, VARIANT* pvName, IStream** ppStream) {
    if (!pvType || !pvName || !ppStream) return E_INVALIDARG;
    const wchar_t* type = nullptr;
    const wchar_t* name = nullptr;
    HRESULT hr = ResourceId(pvType, &type);
    if (SUCCEEDED(hr)) hr = ResourceId(pvName, &name);
    if (FAILED(hr)) return hr;

    HMODULE module = com::Module::Get().Handle();
    HRSRC info = ::FindResourceW(module, name, type);
    if (!info) return E_FAIL;
    DWORD size = ::SizeofResource(module, info);
    HGLOBAL loaded = size ? ::LoadResource(module, info) : nullptr;
    const void* bytes = loaded ? ::LockResource(loaded) : nullptr;
    if (!bytes) return E_FAIL;

    // A copy: the stream outlives nothing of the module's.
    com::ComPtr<IStream> stream;
    hr = ::CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    if (FAILED(hr)) return hr;
    ULONG written = 0;
    hr = stream->Write(bytes, size, &written);
    if (FAILED(hr)) return hr;
    if (written < size) return STG_E_MEDIUMFULL;
    LARGE_INTEGER start = {};
    hr = stream->Seek(start, STREAM_SEEK_SET, nullptr);
    if (FAILED(hr)) return hr;
    *ppStream = stream.Detach();
    return S_OK;
}

STDMETHODIMP CCoKyHelpers::GetApplicationDataFolder(BSTR* pbstrPath) {
    if (!pbstrPath) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        std::wstring folder;
        HRESULT hr = ShellFolder(RoamingEnabled() ? CSIDL_APPDATA : CSIDL_LOCAL_APPDATA, &folder);
        if (FAILED(hr)) return hr;
        return ReturnText(folder + L"\\Norvane\\Tessaly\\", pbstrPath);
    });
}

STDMETHODIMP CCoKyHelpers::GetSharedFolder(BSTR* pbstrPath) {
    if (!pbstrPath) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        std::wstring folder;
        HRESULT hr = CommonFilesFolder(&folder);
        if (FAILED(hr)) return hr;
        return ReturnText(WithBackslash(folder) + L"Norvane Shared\\", pbstrPath);
    });
}

STDMETHODIMP CCoKyHelpers::GetTemporaryFolder(BSTR* pbstrPath) {
    if (!pbstrPath) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        std::wstring folder;
        HRESULT hr = tempfolder::GetFolder(&folder);
        if (FAILED(hr)) return hr;
        return ReturnText(folder, pbstrPath);
    });
}

STDMETHODIMP CCoKyHelpers::GetDocumentsFolder(BSTR* pbstrPath) {
    if (!pbstrPath) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        std::wstring folder;
        HRESULT hr = ShellFolder(CSIDL_PERSONAL, &folder);
        if (FAILED(hr)) return hr;
        if (folder.empty()) {
            *pbstrPath = nullptr;
            return S_OK;
        }
        return ReturnText(folder, pbstrPath);
    });
}

STDMETHODIMP CCoKyHelpers::CreateDirectoryPath(LPCWSTR pszPath) {
    // The shell judges the path, the empty one included (ERROR_BAD_PATHNAME,
    // as for a relative one). A null path is the empty one: the shell is not
    // documented to take null.
    int error = ::SHCreateDirectoryExW(nullptr, pszPath ? pszPath : L"", nullptr);
    if (error == ERROR_SUCCESS) return S_OK;
    if (error == ERROR_ALREADY_EXISTS) return S_FALSE;
    return HRESULT_FROM_WIN32(static_cast<DWORD>(error));
}

STDMETHODIMP CCoKyHelpers::CreateTemporaryFileName(BSTR bstrExtension, BSTR* pbstrPath) {
    if (!pbstrPath) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        std::wstring path;
        HRESULT hr = tempfolder::CreateFileName(bstrExtension, &path);
        if (FAILED(hr)) return hr;
        return ReturnText(path, pbstrPath);
    });
}

STDMETHODIMP CCoKyHelpers::RemoveTemporaryFolder() { return tempfolder::RemoveOwnFolder(); }

}  // namespace ky
