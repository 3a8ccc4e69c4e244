// The maintenance verbs, run the way users run them: rundll32 in a process
// of its own, its output read from a pipe, its effects checked afterwards.
#include <string>

#include "kytest.h"

namespace ky::test {
namespace {

struct Result {
    DWORD exitCode = 0xFFFFFFFF;
    std::string output;
};

Result RunVerb(const std::wstring& arguments) {
    Result result;
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0)) return result;
    ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = writeEnd;
    startup.hStdError = writeEnd;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    std::wstring command = L"rundll32.exe " + DllPath() + L",DoVerbW " + arguments;
    PROCESS_INFORMATION process{};
    BOOL started = ::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                    &process);
    ::CloseHandle(writeEnd);
    if (started) {
        char buffer[4096];
        DWORD read = 0;
        while (::ReadFile(readEnd, buffer, sizeof buffer, &read, nullptr) && read > 0) result.output.append(buffer, read);
        ::WaitForSingleObject(process.hProcess, INFINITE);
        ::GetExitCodeProcess(process.hProcess, &result.exitCode);
        ::CloseHandle(process.hProcess);
        ::CloseHandle(process.hThread);
    }
    ::CloseHandle(readEnd);
    return result;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

const wchar_t kSettings[] = L"Software\\Norvane\\Tessaly 3\\Settings";

TEST(DoVerb, HelpListsEveryVerb) {
    Result r = RunVerb(L"help");
    EXPECT_EQ(0u, r.exitCode);
    for (const char* verb : {"help", "register", "unregister", "reset-settings"})
        EXPECT_TRUE(Contains(r.output, std::string("  ") + verb)) << verb << " missing from:\n" << r.output;
    EXPECT_EQ(0u, RunVerb(L"HELP").exitCode);  // verb names ignore case
}

TEST(DoVerb, AnUnknownOrMissingVerbPrintsHelpAndFails) {
    Result r = RunVerb(L"frobnicate now");
    EXPECT_EQ(1u, r.exitCode);
    EXPECT_TRUE(Contains(r.output, "Unknown verb \"frobnicate\"")) << r.output;
    EXPECT_TRUE(Contains(r.output, "reset-settings")) << r.output;
    r = RunVerb(L"");
    EXPECT_EQ(1u, r.exitCode);
    EXPECT_TRUE(Contains(r.output, "Usage:")) << r.output;
}

TEST(DoVerb, ResetSettingsListsThenRemovesOnlyTheSettingsKey) {
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, (std::wstring(kSettings) + L"\\Recent").c_str(), 0,
                                               nullptr, 0, KEY_WRITE, nullptr, &key, nullptr));
    ::RegCloseKey(key);
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, kSettings, 0, nullptr, 0, KEY_WRITE, nullptr, &key,
                                               nullptr));
    DWORD roaming = 1;
    ::RegSetValueExW(key, L"EnableApplicationDataRoaming", 0, REG_DWORD, reinterpret_cast<BYTE*>(&roaming),
                     sizeof roaming);
    ::RegSetValueExW(key, L"LastServer", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"ldap.example.org"),
                     sizeof(L"ldap.example.org"));
    ::RegCloseKey(key);
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Norvane\\Tessaly 3\\Keep", 0, nullptr, 0,
                                               KEY_WRITE, nullptr, &key, nullptr));
    ::RegCloseKey(key);

    Result r = RunVerb(L"reset-settings");
    EXPECT_EQ(0u, r.exitCode) << r.output;
    EXPECT_TRUE(Contains(r.output, "EnableApplicationDataRoaming = 1")) << r.output;
    EXPECT_TRUE(Contains(r.output, "LastServer = \"ldap.example.org\"")) << r.output;
    EXPECT_TRUE(Contains(r.output, "Recent\\")) << r.output;
    EXPECT_FALSE(RegKeyExists(HKEY_CURRENT_USER, kSettings));
    EXPECT_TRUE(RegKeyExists(HKEY_CURRENT_USER, L"Software\\Norvane\\Tessaly 3\\Keep"));

    r = RunVerb(L"reset-settings");
    EXPECT_EQ(0u, r.exitCode);
    EXPECT_TRUE(Contains(r.output, "Nothing to remove")) << r.output;
    ::RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Norvane\\Tessaly 3\\Keep");
}

TEST(DoVerb, UnregisterAndRegisterChangeTheRegistry) {
    Result r = RunVerb(L"unregister");
    EXPECT_EQ(0u, r.exitCode) << r.output;
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"KyUtils.MTAObjectGodfather"));
    r = RunVerb(L"register");
    EXPECT_EQ(0u, r.exitCode) << r.output;
    EXPECT_TRUE(RegKeyExists(HKEY_CLASSES_ROOT, L"KyUtils.MTAObjectGodfather"));
    EXPECT_TRUE(Contains(r.output, "Registered ")) << r.output;
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
