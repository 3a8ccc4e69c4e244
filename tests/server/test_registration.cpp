// Self-registration: the keys each registered class writes, the type library
// and the proxy/stub, removal, and re-registration.
#include "classtable.h"
#include "kytest.h"

namespace ky::test {
namespace {

std::wstring RegValue(const std::wstring& key, const wchar_t* value = nullptr) {
    std::wstring text;
    return ReadRegString(HKEY_CLASSES_ROOT, key, value, &text) ? text : L"<missing>";
}

HMODULE Dll() {
    static HMODULE dll = ::LoadLibraryW(DllPath().c_str());
    return dll;
}
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
            for (const auto& absent : {versioned, progId, key}) EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, absent));
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

    // Removal takes it all, succeeds again with nothing to remove, and keeps the caller's thread locale.
    const LCID german = MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT), before = ::GetThreadLocale();
    ::SetThreadLocale(german);
    ASSERT_HR(S_OK, Call("DllUnregisterServer"));
    EXPECT_HR(S_OK, Call("DllUnregisterServer"));
    EXPECT_EQ(german, ::GetThreadLocale());
    ::SetThreadLocale(before);
    for (const auto& c : kExpectedClasses) EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, c.progId)) << Narrow(c.progId);
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"TypeLib\\" + GuidText(LIBID_KyUtils)));
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"Interface\\" + GuidText(IID_IObjectGodfather)));
    ASSERT_HR(S_OK, Call("DllRegisterServer"));
    ExpectRegistered();
}

TEST_F(Registration, ReRegistrationReplacesForceRemovedKeysButKeepsTheTimerProgIds) {
    // key, force-removed
    const std::pair<std::wstring, bool> keys[] = {{L"KyUtils.MTAObjectGodfather", true},
                                                  {L"CLSID\\" + GuidText(CLSID_MTAObjectGodfather), true},
                                                  {L"kyutils.SystemTimer", false}};
    for (const auto& [key, forced] : keys) ::RegSetValueW(HKEY_CLASSES_ROOT, (key + L"\\Stale").c_str(), REG_SZ, L"x", 1);
    ::RegSetValueW(HKEY_CLASSES_ROOT, L"kyutils.SystemTimer", REG_SZ, L"changed", 7);
    ASSERT_HR(S_OK, Call("DllRegisterServer"));
    for (const auto& [key, forced] : keys) EXPECT_NE(forced, RegKeyExists(HKEY_CLASSES_ROOT, key + L"\\Stale")) << Narrow(key);
    EXPECT_EQ(L"SystemTimer Class", RegValue(L"kyutils.SystemTimer"));  // its values are written again
    ::RegDeleteKeyW(HKEY_CLASSES_ROOT, L"kyutils.SystemTimer\\Stale");
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
