// A client of one architecture, for a prefix where both builds are
// registered: asks for the string collection by ProgID as scripts do, calls
// it by name, and checks that this architecture's build served it and that
// the registry names that build's type library.
//   bitness_probe served|unregistered
#include <wrl/client.h>

#include <cstdio>

#include "com/raii.h"
#include "kytest.h"

using namespace ky::test;

namespace {

// A path as one spelling: full, backslashes, lower case.
std::wstring Normal(const std::wstring& path) {
    wchar_t full[MAX_PATH] = L"";
    ::GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
    ::CharLowerW(full);
    return full;
}

// Null when all is as expected, else what is not.
const char* Probe(bool expectServed) {
    CLSID clsid;
    if (FAILED(::CLSIDFromProgID(L"KyUtils.KyStrings", &clsid))) return "the ProgID is gone";
    Microsoft::WRL::ComPtr<IDispatch> strings;
    HRESULT hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&strings));
    if (!expectServed) return hr == REGDB_E_CLASSNOTREG ? nullptr : "the class should not be registered here";
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"Count")};
    DISPID id = DISPID_UNKNOWN;
    com::Variant count;
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    if (FAILED(hr) || FAILED(strings->GetIDsOfNames(IID_NULL, names, 1, 0, &id)) ||
        FAILED(strings->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &count, nullptr, nullptr)))
        return "calling the class by name";
    wchar_t loaded[MAX_PATH] = L"";
    ::GetModuleFileNameW(LoadedDll(), loaded, MAX_PATH);
    if (Normal(loaded) != Normal(DllPath())) return "served by another build";
    for (LCID locale : {LCID(0x409), LCID(0)}) {
        com::Bstr path;
        if (FAILED(::QueryPathOfRegTypeLib(LIBID_KyUtils, 1, 0, locale, path.Out())) ||
            Normal(path.Get()) != Normal(DllPath()))
            return "the type library is not registered for this build";
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string expect = argc > 1 ? argv[1] : "";
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    const char* failure = expect == "served" || expect == "unregistered" ? Probe(expect == "served") : "usage";
    ::CoUninitialize();
    std::printf("%s: %s %s\n", sizeof(void*) == 8 ? "x86_64" : "i686", failure ? "FAILED:" : expect.c_str(),
                failure ? failure : "as expected");
    return failure ? 1 : 0;
}
