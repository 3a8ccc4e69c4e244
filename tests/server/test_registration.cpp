// Self-registration (the keys each registered class writes, the type library
// and the proxy/stub, removal, and re-registration) and the maintenance verbs.
#include <string>

#include "classtable.h"
#include "com/raii.h"
#include "kytest.h"

namespace ky::test {
namespace {

std::wstring RegValue(const std::wstring& key, const wchar_t* value = nullptr, std::wstring text = L"") {
    return ReadRegString(HKEY_CLASSES_ROOT, key, value, &text) ? text : L"<missing>";
}

HMODULE Dll() { static HMODULE dll = ::LoadLibraryW(DllPath().c_str()); return dll; }
HRESULT Call(const char* entry) {
    return reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(reinterpret_cast<void*>(::GetProcAddress(Dll(), entry)))();
}
// The DLL's file as the registry should name it.
std::wstring DllFile() {
    wchar_t path[MAX_PATH];
    ::GetModuleFileNameW(Dll(), path, MAX_PATH);
    return path;
}

// Every class of the object map has its keys, and no other class has any.
void ExpectRegistered() {
    for (const auto& c : kExpectedClasses) {
        SCOPED_TRACE(Narrow(c.progId));
        const std::wstring key = L"CLSID\\" + GuidText(*c.clsid), progId = c.progId, versioned = progId + L".1";
        if (!Served(*c.clsid)) {
            EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, key));
            continue;
        }
        // key, value, expected ("" is an empty value that exists)
        const std::tuple<std::wstring, const wchar_t*, std::wstring> values[] = {
            {versioned, nullptr, c.versionedDescription}, {versioned + L"\\CLSID", nullptr, GuidText(*c.clsid)},
            {progId, nullptr, c.description},             {progId + L"\\CLSID", nullptr, GuidText(*c.clsid)},
            {progId + L"\\CurVer", nullptr, versioned},   {key, nullptr, c.description},
            {key + L"\\ProgID", nullptr, versioned},      {key + L"\\VersionIndependentProgID", nullptr, progId},
            {key + L"\\InprocServer32", L"ThreadingModel", c.threadingModel},
            {key + L"\\TypeLib", nullptr, GuidText(LIBID_KyUtils)},
            {key, L"AppID", c.appId ? L"" : L"<missing>"}, {key + L"\\InprocServer32", nullptr, DllFile()},
        };
        for (const auto& [k, value, expected] : values) EXPECT_EQ(expected, RegValue(k, value)) << Narrow(k);
        EXPECT_EQ(c.programmable, RegKeyExists(HKEY_CLASSES_ROOT, key + L"\\Programmable"));
    }
}

struct Registration : ::testing::Test {
    void TearDown() override { EXPECT_HR(S_OK, Call("DllRegisterServer")); }  // leave the prefix registered
};

TEST_F(Registration, RegistersTheClassesTheTypeLibraryAndTheProxyStubAndRemovesThemAgain) {
    ASSERT_HR(S_OK, Call("DllRegisterServer"));
    ExpectRegistered();
    // The type library also for the neutral locale, where the dispatch marshaler looks.
    const std::wstring typeLib = L"TypeLib\\" + GuidText(LIBID_KyUtils) + L"\\1.0\\";
    const std::wstring platform = sizeof(void*) == 8 ? L"\\win64" : L"\\win32";
    EXPECT_EQ(DllFile(), RegValue(typeLib + L"409" + platform));
    EXPECT_EQ(DllFile(), RegValue(typeLib + L"0" + platform));
    // Dual interfaces are marshalled by the merged proxy/stub too, not by the
    // type-library marshaler: the proxy/stub is registered after the library.
    const std::wstring proxyStub = RegValue(L"Interface\\" + GuidText(IID_IObjectGodfather) + L"\\ProxyStubClsid32");
    EXPECT_EQ(DllFile(), RegValue(L"CLSID\\" + proxyStub + L"\\InprocServer32"));
    EXPECT_EQ(proxyStub, RegValue(L"Interface\\" + GuidText(IID_IStrings) + L"\\ProxyStubClsid32"));

    // Removal takes it all, and succeeds again with nothing to remove.
    EXPECT_HR(S_OK, Call("DllUnregisterServer"));
    EXPECT_HR(S_OK, Call("DllUnregisterServer"));
    for (const auto& c : kExpectedClasses) EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, c.progId)) << Narrow(c.progId);
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"TypeLib\\" + GuidText(LIBID_KyUtils)));
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"Interface\\" + GuidText(IID_IObjectGodfather)));
    ASSERT_HR(S_OK, Call("DllRegisterServer"));
    ExpectRegistered();
}

// The maintenance verbs, run the way users run them: rundll32 in a process
// of its own, its output going to a file, its effects checked afterwards.
// Not a pipe read to its end: under Wine, rundll32 may start the desktop
// process, which inherits the pipe and keeps it open for good.
// The exit code and the output (errors included) of one run.
std::pair<DWORD, std::string> RunVerb(const std::wstring& arguments) {
    std::pair<DWORD, std::string> result{0xFFFFFFFF, ""};
    wchar_t folder[MAX_PATH + 1], name[MAX_PATH + 1];
    if (!::GetTempPathW(MAX_PATH + 1, folder) || !::GetTempFileNameW(folder, L"kyv", 0, name)) return result;
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    com::Handle output(::CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE |
                                     FILE_SHARE_DELETE, &inherited, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    STARTUPINFOW startup = {sizeof startup};
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = output.Get();
    PROCESS_INFORMATION process = {};
    std::wstring command = L"rundll32.exe " + DllPath() + L",DoVerbW " + arguments;
    if (!output || !::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                     &process))
        return result;
    com::Handle child(process.hProcess), thread(process.hThread);
    if (::WaitForSingleObject(child.Get(), 60000) != WAIT_OBJECT_0) return result;
    ::GetExitCodeProcess(child.Get(), &result.first);
    char buffer[4096];
    DWORD read = 0;
    ::SetFilePointer(output.Get(), 0, nullptr, FILE_BEGIN);
    while (::ReadFile(output.Get(), buffer, sizeof buffer, &read, nullptr) && read > 0)
        result.second.append(buffer, read);
    return result;
}

// Help, for an unknown or missing verb too (which fail); reset-settings removes only the settings key;
// clean-temp removes only temporary folders that no live process owns.
TEST(DoVerb, EachVerbDoesWhatItPrints) {
    const std::wstring product = L"Software\\Norvane\\Tessaly 3\\", settings = product + L"Settings";
    ::RegSetKeyValueW(HKEY_CURRENT_USER, (settings + L"\\Recent").c_str(), nullptr, REG_SZ, L"", 2);
    ::RegSetKeyValueW(HKEY_CURRENT_USER, settings.c_str(), L"LastServer", REG_SZ, L"ldap.example.org", 34);
    ::RegSetKeyValueW(HKEY_CURRENT_USER, (product + L"Keep").c_str(), nullptr, REG_SZ, L"", 2);
    HANDLE markers[2];
    std::wstring folders[2];
    for (int i = 0; i < 2; ++i) {
        folders[i] = TempPath() + L"KyUtils-{0D1E0D1E-0000-4000-8000-00000000000" + std::to_wstring(i) + L"}";
        ::CreateDirectoryW(folders[i].c_str(), nullptr);
        markers[i] = ::CreateFileW((folders[i] + L"\\KyUtils.owner").c_str(), GENERIC_READ | GENERIC_WRITE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, 0, nullptr);
    }
    ::CloseHandle(markers[0]);  // its owner is gone; this test stays the other's owner
    // arguments, exit code, expected in the output (names of verbs ignore case)
    const std::tuple<const wchar_t*, DWORD, const char*> runs[] = {
        {L"help", 0, "  clean-temp"}, {L"HELP", 0, "  reset-settings"}, {L"frobnicate now", 1, "Unknown verb \"frobnicate\""},
        {L"", 1, "Usage:"}, {L"reset-settings", 0, "LastServer = \"ldap.example.org\""},
        {L"reset-settings", 0, "Nothing to remove"}, {L"clean-temp", 0, "in use   "}};
    for (auto [arguments, exitCode, expected] : runs) {
        auto [code, output] = RunVerb(arguments);
        EXPECT_EQ(exitCode, code) << Narrow(arguments);
        EXPECT_NE(std::string::npos, output.find(expected)) << output;
    }
    EXPECT_FALSE(RegKeyExists(HKEY_CURRENT_USER, settings));
    EXPECT_TRUE(RegKeyExists(HKEY_CURRENT_USER, product + L"Keep"));
    ::RegDeleteKeyW(HKEY_CURRENT_USER, (product + L"Keep").c_str());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folders[0].c_str()));
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folders[1].c_str()));
    ::CloseHandle(markers[1]);
    RunVerb(L"clean-temp");
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folders[1].c_str()));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
