// reset-settings: removes the application's settings key after listing what
// it holds, so that the user sees what was thrown away.
#include <windows.h>

#include <string>
#include <vector>

#include "com/raii.h"
#include "doverb.h"

namespace ky {

namespace {

std::wstring ValueText(DWORD type, const std::vector<BYTE>& data) {
    switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ: {
        std::wstring text(reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t));
        while (!text.empty() && text.back() == L'\0') text.pop_back();
        return L"\"" + text + L"\"";
    }
    case REG_DWORD:
        if (data.size() == sizeof(DWORD)) return std::to_wstring(*reinterpret_cast<const DWORD*>(data.data()));
        break;
    default:
        break;
    }
    return L"(" + std::to_wstring(data.size()) + L" bytes of type " + std::to_wstring(type) + L")";
}

// Prints a key's values and, indented, its subkeys.
void List(Console& out, HKEY parent, const std::wstring& path, const std::wstring& indent) {
    com::RegKey key;
    if (key.Open(parent, path.c_str(), KEY_READ) != ERROR_SUCCESS) return;
    for (DWORD i = 0;; ++i) {
        wchar_t name[16384];
        DWORD nameLength = 16384;
        DWORD type = 0;
        DWORD size = 0;
        if (::RegEnumValueW(key.Get(), i, name, &nameLength, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) break;
        std::vector<BYTE> data(size);
        nameLength = 16384;
        ::RegEnumValueW(key.Get(), i, name, &nameLength, nullptr, &type, data.data(), &size);
        out.Line(indent + (nameLength ? std::wstring(name) : L"(default)") + L" = " + ValueText(type, data));
    }
    for (DWORD i = 0;; ++i) {
        wchar_t name[256];
        DWORD nameLength = 256;
        if (::RegEnumKeyExW(key.Get(), i, name, &nameLength, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        out.Line(indent + name + L"\\");
        List(out, key.Get(), name, indent + L"  ");
    }
}

}  // namespace

int ResetSettings(Console& out) {
    const std::wstring where = L"HKEY_CURRENT_USER\\" KY_SETTINGS_KEY;
    com::RegKey key;
    if (key.Open(HKEY_CURRENT_USER, KY_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS) {
        out.Line(L"Nothing to remove: " + where + L" does not exist.");
        return 0;
    }
    key.Close();
    out.Line(L"Removing " + where + L":");
    List(out, HKEY_CURRENT_USER, KY_SETTINGS_KEY, L"  ");
    // Given a subkey, RegDeleteTree removes that key with everything below it.
    LSTATUS status = ::RegDeleteTreeW(HKEY_CURRENT_USER, KY_SETTINGS_KEY);
    if (status != ERROR_SUCCESS) {
        out.Line(L"Could not remove it: " + HResultText(HRESULT_FROM_WIN32(status)));
        return 1;
    }
    out.Line(L"Removed.");
    return 0;
}

}  // namespace ky
