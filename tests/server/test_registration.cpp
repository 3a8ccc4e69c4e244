// Self-registration: the keys each registered class writes, the type library
// and the proxy/stub, removal, and re-registration. Runs alone: it takes the
// registration away for a moment.
#include <wrl/client.h>

#include "classtable.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

std::wstring Lower(std::wstring text) {
    for (auto& c : text) c = static_cast<wchar_t>(::towlower(c));
    return text;
}

std::wstring RegValue(const std::wstring& key, const wchar_t* value = nullptr) {
    std::wstring text;
    if (!ReadRegString(HKEY_CLASSES_ROOT, key, value, &text)) return L"<missing>";
    return text;
}

bool ValueExists(const std::wstring& key, const wchar_t* value) {
    HKEY handle = nullptr;
    if (::RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
    bool exists = ::RegQueryValueExW(handle, value, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
    ::RegCloseKey(handle);
    return exists;
}

class Registration : public ::testing::Test {
protected:
    void SetUp() override {
        m_dll = ::LoadLibraryW(DllPath().c_str());
        ASSERT_NE(nullptr, m_dll);
        m_register = Export("DllRegisterServer");
        m_unregister = Export("DllUnregisterServer");
        wchar_t path[MAX_PATH];
        ::GetModuleFileNameW(m_dll, path, MAX_PATH);
        m_path = path;
        ASSERT_HR(S_OK, m_register());
    }
    void TearDown() override {
        EXPECT_HR(S_OK, m_register());  // leave the prefix registered for the other tests
        ::FreeLibrary(m_dll);
    }
    using Entry = HRESULT(STDAPICALLTYPE*)();
    Entry Export(const char* name) {
        return reinterpret_cast<Entry>(reinterpret_cast<void*>(::GetProcAddress(m_dll, name)));
    }

    void ExpectRegistered(const ExpectedClass& c) {
        SCOPED_TRACE(Narrow(c.progId));
        const std::wstring clsid = GuidText(*c.clsid);
        const std::wstring versioned = std::wstring(c.progId) + L".1";
        EXPECT_EQ(c.versionedDescription, RegValue(versioned));
        EXPECT_EQ(clsid, RegValue(versioned + L"\\CLSID"));
        EXPECT_EQ(c.description, RegValue(c.progId));
        EXPECT_EQ(clsid, RegValue(std::wstring(c.progId) + L"\\CLSID"));
        EXPECT_EQ(versioned, RegValue(std::wstring(c.progId) + L"\\CurVer"));
        const std::wstring key = L"CLSID\\" + clsid;
        EXPECT_EQ(c.description, RegValue(key));
        EXPECT_EQ(versioned, RegValue(key + L"\\ProgID"));
        EXPECT_EQ(c.progId, RegValue(key + L"\\VersionIndependentProgID"));
        EXPECT_EQ(Lower(m_path), Lower(RegValue(key + L"\\InprocServer32")));
        // An empty ThreadingModel is a value that exists and is empty.
        EXPECT_EQ(c.threadingModel, RegValue(key + L"\\InprocServer32", L"ThreadingModel"));
        EXPECT_EQ(GuidText(LIBID_KyUtils), RegValue(key + L"\\TypeLib"));
        EXPECT_EQ(c.programmable, RegKeyExists(HKEY_CLASSES_ROOT, key + L"\\Programmable"));
        EXPECT_EQ(c.appId, ValueExists(key, L"AppID"));
        if (c.appId) {
            EXPECT_EQ(L"", RegValue(key, L"AppID"));
        }
    }

    void ExpectAbsent(const ExpectedClass& c) {
        SCOPED_TRACE(Narrow(c.progId));
        EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, std::wstring(c.progId) + L".1"));
        EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, c.progId));
        EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"CLSID\\" + GuidText(*c.clsid)));
    }

    std::wstring TypeLibKey() const {
        return L"TypeLib\\" + GuidText(LIBID_KyUtils) + (sizeof(void*) == 8 ? L"\\1.0\\409\\win64" : L"\\1.0\\409\\win32");
    }

    HMODULE m_dll = nullptr;
    Entry m_register = nullptr;
    Entry m_unregister = nullptr;
    std::wstring m_path;
};

TEST_F(Registration, EachClassInTheMapWritesItsKeysAndNoOtherClassDoes) {
    int served = 0;
    for (const auto& c : kExpectedClasses) {
        if (Served(*c.clsid)) {
            ++served;
            ExpectRegistered(c);
        } else {
            ExpectAbsent(c);
        }
    }
    EXPECT_GE(served, 2);
}

TEST_F(Registration, RegistersTheTypeLibraryAndTheProxyStub) {
    EXPECT_EQ(Lower(m_path), Lower(RegValue(TypeLibKey())));
    // Also for the neutral locale, where the dispatch marshaler looks.
    std::wstring neutral = TypeLibKey();
    neutral.replace(neutral.find(L"\\409\\"), 5, L"\\0\\");
    EXPECT_EQ(Lower(m_path), Lower(RegValue(neutral)));
    BSTR path = nullptr;
    EXPECT_HR(S_OK, ::QueryPathOfRegTypeLib(LIBID_KyUtils, 1, 0, 0, &path));
    ::SysFreeString(path);
    const std::wstring iface = L"Interface\\" + GuidText(IID_IObjectGodfather);
    std::wstring proxyStub = RegValue(iface + L"\\ProxyStubClsid32");
    ASSERT_NE(L"<missing>", proxyStub);
    EXPECT_EQ(Lower(m_path), Lower(RegValue(L"CLSID\\" + proxyStub + L"\\InprocServer32")));
    // Dual interfaces are marshalled by the merged proxy/stub too, not by the
    // type-library marshaler: the proxy/stub is registered after the library.
    EXPECT_EQ(proxyStub, RegValue(L"Interface\\" + GuidText(IID_IStrings) + L"\\ProxyStubClsid32"));
}

TEST_F(Registration, UnregisterRemovesEverythingAndRegisterBringsItBack) {
    ASSERT_HR(S_OK, m_unregister());
    for (const auto& c : kExpectedClasses) ExpectAbsent(c);
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, TypeLibKey()));
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"TypeLib\\" + GuidText(LIBID_KyUtils)));
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"Interface\\" + GuidText(IID_IObjectGodfather)));
    // A second removal finds nothing to remove and still succeeds.
    EXPECT_HR(S_OK, m_unregister());

    ASSERT_HR(S_OK, m_register());
    for (const auto& c : kExpectedClasses)
        if (Served(*c.clsid)) ExpectRegistered(c);
}

TEST_F(Registration, ReRegistrationReplacesForceRemovedKeysButKeepsTheTimerProgIds) {
    auto addStale = [](const std::wstring& key) {
        HKEY handle = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CLASSES_ROOT, (key + L"\\Stale").c_str(), 0, nullptr, 0,
                                                   KEY_WRITE, nullptr, &handle, nullptr));
        ::RegCloseKey(handle);
    };
    addStale(L"KyUtils.MTAObjectGodfather");
    addStale(L"CLSID\\" + GuidText(CLSID_MTAObjectGodfather));
    const bool timer = Served(CLSID_SystemTimer);
    if (timer) {
        addStale(L"kyutils.SystemTimer");
        ::RegSetValueW(HKEY_CLASSES_ROOT, L"kyutils.SystemTimer", REG_SZ, L"changed", 7);
    }
    ASSERT_HR(S_OK, m_register());
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"KyUtils.MTAObjectGodfather\\Stale"));
    EXPECT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, L"CLSID\\" + GuidText(CLSID_MTAObjectGodfather) + L"\\Stale"));
    if (timer) {
        // Not force-removed: the key stays, only its values are written again.
        EXPECT_TRUE(RegKeyExists(HKEY_CLASSES_ROOT, L"kyutils.SystemTimer\\Stale"));
        EXPECT_EQ(L"SystemTimer Class", RegValue(L"kyutils.SystemTimer"));
        ::RegDeleteKeyW(HKEY_CLASSES_ROOT, L"kyutils.SystemTimer\\Stale");
    }
}

TEST_F(Registration, RestoresTheCallersThreadLocale) {
    const LCID german = MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT);
    const LCID before = ::GetThreadLocale();
    ::SetThreadLocale(german);
    EXPECT_HR(S_OK, m_register());
    EXPECT_EQ(german, ::GetThreadLocale());
    EXPECT_HR(S_OK, m_unregister());
    EXPECT_EQ(german, ::GetThreadLocale());
    ::SetThreadLocale(before);
}

TEST_F(Registration, EveryRegisteredClassIsCreatableByItsProgIds) {
    auto create = [](const ExpectedClass& c) {
        SCOPED_TRACE(Narrow(c.progId));
        for (std::wstring progId : {std::wstring(c.progId), std::wstring(c.progId) + L".1"}) {
            CLSID clsid;
            ASSERT_HR(S_OK, ::CLSIDFromProgID(progId.c_str(), &clsid));
            EXPECT_TRUE(IsEqualCLSID(*c.clsid, clsid));
            ComPtr<IUnknown> object;
            EXPECT_HR(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object));
        }
    };
    // Each class is created from an apartment its threading model lives in.
    // (Wine 8 keeps a reference to the class object of a class that it hosts
    // in another apartment for the caller, which would keep the module locked.)
    for (const auto& c : kExpectedClasses) {
        std::wstring model = c.threadingModel;
        if (Served(*c.clsid) && (model == L"Free" || model == L"Both")) create(c);
    }
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        for (const auto& c : kExpectedClasses) {
            std::wstring model = c.threadingModel;
            if (Served(*c.clsid) && (model == L"Apartment" || model.empty())) create(c);
        }
    });
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
