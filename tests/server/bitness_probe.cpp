// A client of one architecture, for a prefix where both builds are
// registered: asks for the string collection by ProgID as scripts do, calls
// it by name, and checks that this architecture's build served it and that
// the registry names that build's type library.
//   bitness_probe served|unregistered
#include <wrl/client.h>

#include <cstdio>

#include "com/raii.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;
using namespace ky::test;

namespace {

int Fail(const char* what, HRESULT hr) {
    std::printf("FAILED: %s (%s)\n", what, Hex(hr).c_str());
    return 1;
}

// A path as one spelling: full, backslashes, lower case.
std::wstring Normal(const std::wstring& path) {
    wchar_t full[MAX_PATH];
    DWORD length = ::GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
    std::wstring text(full, length < MAX_PATH ? length : 0);
    ::CharLowerBuffW(&text[0], static_cast<DWORD>(text.size()));
    return text;
}

HRESULT CallByName(IDispatch* object, const wchar_t* name, WORD flags, VARIANT* argument, VARIANT* result) {
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    DISPID id = DISPID_UNKNOWN;
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    if (FAILED(hr)) return hr;
    DISPPARAMS params{argument, nullptr, argument ? 1u : 0u, 0};
    return object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, nullptr, nullptr);
}

int Probe(bool expectServed) {
    const char* arch = sizeof(void*) == 8 ? "x86_64" : "i686";
    CLSID clsid;
    HRESULT hr = ::CLSIDFromProgID(L"KyUtils.KyStrings", &clsid);
    if (FAILED(hr)) return Fail("the ProgID is gone", hr);
    ComPtr<IDispatch> strings;
    hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&strings));
    if (!expectServed) {
        if (hr != REGDB_E_CLASSNOTREG) return Fail("the class should not be registered for this architecture", hr);
        std::printf("%s: not served, as expected\n", arch);
        return 0;
    }
    if (FAILED(hr)) return Fail("creating the class", hr);
    com::Variant text, count;
    V_VT(&text) = VT_BSTR;
    V_BSTR(&text) = ::SysAllocString(L"mail");
    if (FAILED(hr = CallByName(strings.Get(), L"Add", DISPATCH_METHOD, &text, nullptr))) return Fail("Add", hr);
    if (FAILED(hr = CallByName(strings.Get(), L"Count", DISPATCH_PROPERTYGET, nullptr, &count)) ||
        V_VT(&count) != VT_I4 || V_I4(&count) != 1)
        return Fail("Count", hr);

    wchar_t loaded[MAX_PATH] = L"";
    ::GetModuleFileNameW(LoadedDll(), loaded, MAX_PATH);
    if (Normal(loaded) != Normal(DllPath())) {
        std::printf("FAILED: served by %ls, not by %ls\n", loaded, DllPath().c_str());
        return 1;
    }
    for (LCID locale : {LCID(0x409), LCID(0)}) {
        com::Bstr path;
        hr = ::QueryPathOfRegTypeLib(LIBID_KyUtils, 1, 0, locale, path.Out());
        if (FAILED(hr)) return Fail("the type library is not registered", hr);
        if (Normal(path.Get()) != Normal(DllPath())) {
            std::printf("FAILED: locale %lu names the type library %ls\n", static_cast<unsigned long>(locale),
                        path.Get());
            return 1;
        }
    }
    std::printf("%s: served by this build, type library registered for it\n", arch);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string expect = argc > 1 ? argv[1] : "";
    if (expect != "served" && expect != "unregistered") {
        std::printf("usage: bitness_probe served|unregistered\n");
        return 2;
    }
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = Probe(expect == "served");
    ::CoUninitialize();
    return result;
}
