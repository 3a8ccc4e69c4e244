// The maintenance verbs, run the way users run them: rundll32 in a process
// of its own, its output read from a pipe, its effects checked afterwards.
#include <string>

#include "kytest.h"

namespace ky::test {
namespace {

// The exit code and the output of one run.
std::pair<DWORD, std::string> RunVerb(const std::wstring& arguments) {
    std::pair<DWORD, std::string> result{0xFFFFFFFF, ""};
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    ::CreatePipe(&readEnd, &writeEnd, &inherit, 0);
    ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{sizeof(startup)};
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = writeEnd;
    std::wstring command = L"rundll32.exe " + DllPath() + L",DoVerbW " + arguments;
    PROCESS_INFORMATION process{};
    BOOL started = ::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
    ::CloseHandle(writeEnd);
    char buffer[4096];
    for (DWORD read = 0; started && ::ReadFile(readEnd, buffer, sizeof buffer, &read, nullptr) && read > 0;)
        result.second.append(buffer, read);
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ::GetExitCodeProcess(process.hProcess, &result.first);
    ::CloseHandle(process.hProcess), ::CloseHandle(process.hThread), ::CloseHandle(readEnd);
    return result;
}

TEST(DoVerb, HelpIsPrintedForHelpAndForAnUnknownOrMissingVerbWhichFail) {
    // arguments, exit code, expected in the output (names of verbs ignore case)
    const std::tuple<const wchar_t*, DWORD, const char*> runs[] = {
        {L"help", 0, "  clean-temp"},   {L"HELP", 0, "  reset-settings"},
        {L"frobnicate now", 1, "Unknown verb \"frobnicate\""}, {L"", 1, "Usage:"}};
    for (auto [arguments, exitCode, expected] : runs) {
        auto [code, output] = RunVerb(arguments);
        EXPECT_EQ(exitCode, code) << Narrow(arguments);
        EXPECT_NE(std::string::npos, output.find(expected)) << output;
    }
}

TEST(DoVerb, ResetSettingsListsThenRemovesOnlyTheSettingsKey) {
    const std::wstring product = L"Software\\Norvane\\Tessaly 3\\", settings = product + L"Settings";
    ::RegSetKeyValueW(HKEY_CURRENT_USER, (settings + L"\\Recent").c_str(), nullptr, REG_SZ, L"", 2);
    ::RegSetKeyValueW(HKEY_CURRENT_USER, settings.c_str(), L"LastServer", REG_SZ, L"ldap.example.org", 34);
    ::RegSetKeyValueW(HKEY_CURRENT_USER, (product + L"Keep").c_str(), nullptr, REG_SZ, L"", 2);
    auto [code, output] = RunVerb(L"reset-settings");
    EXPECT_EQ(0u, code);
    EXPECT_NE(std::string::npos, output.find("LastServer = \"ldap.example.org\"")) << output;
    EXPECT_NE(std::string::npos, output.find("Recent\\")) << output;
    EXPECT_FALSE(RegKeyExists(HKEY_CURRENT_USER, settings));
    EXPECT_TRUE(RegKeyExists(HKEY_CURRENT_USER, product + L"Keep"));
    EXPECT_NE(std::string::npos, RunVerb(L"reset-settings").second.find("Nothing to remove"));
    ::RegDeleteKeyW(HKEY_CURRENT_USER, (product + L"Keep").c_str());
}

TEST(DoVerb, CleanTempRemovesOnlyFoldersThatNoLiveProcessOwns) {
    HANDLE markers[2];
    std::wstring folders[2];
    for (int i = 0; i < 2; ++i) {
        folders[i] = TempPath() + L"KyUtils-{0D1E0D1E-0000-4000-8000-00000000000" + std::to_wstring(i) + L"}";
        ::CreateDirectoryW(folders[i].c_str(), nullptr);
        markers[i] = ::CreateFileW((folders[i] + L"\\KyUtils.owner").c_str(), GENERIC_READ | GENERIC_WRITE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, 0, nullptr);
    }
    ::CloseHandle(markers[0]);  // its owner is gone; this test stays the other's owner
    auto [code, output] = RunVerb(L"clean-temp");
    EXPECT_EQ(0u, code);
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folders[0].c_str())) << output;
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folders[1].c_str())) << output;
    ::CloseHandle(markers[1]);
    RunVerb(L"clean-temp");
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folders[1].c_str()));
}

}  // namespace
}  // namespace ky::test
