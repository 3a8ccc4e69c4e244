// The maintenance verbs, run the way users run them: rundll32 in a process
// of its own, its output read from a pipe, its effects checked afterwards.
#include <wrl/client.h>

#include <string>

#include "kytest.h"
#include "sharedconfig/sharedfile.h"

using Microsoft::WRL::ComPtr;

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
    for (const char* verb : {"help", "register", "unregister", "reset-settings", "list-config", "clean-temp"})
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

// A compound file with a stream, and a storage holding another stream.
std::wstring MakeConfigFile() {
    std::wstring path = TempPath() + L"doverb-config.stg";
    ComPtr<IStorage> root, child;
    ComPtr<IStream> stream;
    const DWORD mode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    EXPECT_HR(S_OK, ::StgCreateDocfile(path.c_str(), mode | STGM_CREATE, 0, &root));
    EXPECT_HR(S_OK, root->CreateStream(L"Columns", mode, 0, 0, &stream));
    stream->Write("0123456789", 10, nullptr);
    EXPECT_HR(S_OK, root->CreateStorage(L"Servers", mode, 0, 0, &child));
    stream.Reset();
    EXPECT_HR(S_OK, child->CreateStream(L"ldap.example.org", mode, 0, 0, &stream));
    stream->Write("389", 3, nullptr);
    return path;
}

TEST(DoVerb, ListConfigShowsEveryElementWithItsKindAndSize) {
    std::wstring path = MakeConfigFile();
    Result r = RunVerb(L"list-config \"" + path + L"\"");
    EXPECT_EQ(0u, r.exitCode) << r.output;
    EXPECT_TRUE(Contains(r.output, "stream   Columns  10 bytes")) << r.output;
    EXPECT_TRUE(Contains(r.output, "storage  Servers")) << r.output;
    EXPECT_TRUE(Contains(r.output, "    stream   ldap.example.org  3 bytes")) << r.output;
    EXPECT_TRUE(Contains(r.output, "2 stream(s), 1 storage(s).")) << r.output;

    r = RunVerb(L"list-config \"" + path + L".missing\"");
    EXPECT_EQ(1u, r.exitCode) << r.output;
    EXPECT_EQ(1u, RunVerb(L"list-config").exitCode);
    ::DeleteFileW(path.c_str());
}

TEST(DoVerb, ListConfigWaitsForTheFilesLockLikeEveryOtherUser) {
    std::wstring path = MakeConfigFile();
    // The lock every user of the file takes, held here for the whole run.
    ComPtr<IKyStdStrings> helper;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&helper)));
    BSTR suffix = ::SysAllocString(sharedfile::PathHashDigits(path.c_str(), path.size()).c_str());
    BSTR name = nullptr;
    ASSERT_HR(S_OK, helper->CreateKernelObjectName(1, 1, suffix, &name));
    HANDLE mutex = ::CreateMutexW(nullptr, TRUE, name);
    ::SysFreeString(suffix);
    ::SysFreeString(name);
    helper.Reset();
    ASSERT_NE(nullptr, mutex);

    Result r = RunVerb(L"list-config \"" + path + L"\"");
    EXPECT_EQ(1u, r.exitCode) << r.output;
    EXPECT_TRUE(Contains(r.output, "was not granted")) << r.output;
    ::ReleaseMutex(mutex);
    ::CloseHandle(mutex);
    EXPECT_EQ(0u, RunVerb(L"list-config \"" + path + L"\"").exitCode);
    ::DeleteFileW(path.c_str());
}

TEST(DoVerb, CleanTempRemovesOnlyFoldersThatNoLiveProcessOwns) {
    auto makeFolder = [](const wchar_t* guid, HANDLE* marker) {
        std::wstring folder = TempPath() + L"KyUtils-" + guid;
        ::CreateDirectoryW(folder.c_str(), nullptr);
        *marker = ::CreateFileW((folder + L"\\KyUtils.owner").c_str(), GENERIC_READ | GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, 0, nullptr);
        HANDLE file = ::CreateFileW((folder + L"\\ky1.tmp").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0,
                                    nullptr);
        ::CloseHandle(file);
        return folder;
    };
    HANDLE deadMarker = nullptr, liveMarker = nullptr;
    std::wstring dead = makeFolder(L"{0D1E0D1E-0000-4000-8000-000000000001}", &deadMarker);
    std::wstring live = makeFolder(L"{0D1E0D1E-0000-4000-8000-000000000002}", &liveMarker);
    ::CloseHandle(deadMarker);  // its owner is gone; this test stays the other's owner

    Result r = RunVerb(L"clean-temp");
    EXPECT_EQ(0u, r.exitCode) << r.output;
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(dead.c_str())) << r.output;
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(live.c_str())) << r.output;
    EXPECT_TRUE(Contains(r.output, "removed  ")) << r.output;
    EXPECT_TRUE(Contains(r.output, "in use   ")) << r.output;

    ::CloseHandle(liveMarker);
    r = RunVerb(L"clean-temp");
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(live.c_str())) << r.output;
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
