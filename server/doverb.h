// The maintenance verbs behind DoVerbW.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// The application's settings key under HKEY_CURRENT_USER.
#define KY_SETTINGS_KEY L"Software\\Norvane\\Tessaly 3\\Settings"

namespace ky {

// Where verbs print: the standard output they were started with, or the
// console of the process that started them.
class Console {
public:
    Console();
    void Line(const std::wstring& text);

private:
    HANDLE m_handle = nullptr;
    bool m_console = false;
};

// "0x80070002 (The system cannot find the file specified.)"
std::wstring HResultText(HRESULT hr);

// Runs the verb args[0] with the rest as its arguments; returns the exit code.
int RunVerb(Console& out, const std::vector<std::wstring>& args);

int ResetSettings(Console& out);
int ListConfig(Console& out, const std::vector<std::wstring>& args);
int CleanTemp(Console& out);

}  // namespace ky
