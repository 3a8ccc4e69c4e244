#include "registrar.h"

#include <wrl/client.h>

namespace com {

const CLSID CLSID_Registrar = {0x44EC053A, 0x400F, 0x11D0, {0x9D, 0xCD, 0x00, 0xA0, 0xC9, 0x03, 0x91, 0xD3}};
const IID IID_IRegistrar = {0x44EC053B, 0x400F, 0x11D0, {0x9D, 0xCD, 0x00, 0xA0, 0xC9, 0x03, 0x91, 0xD3}};

HRESULT RunRegistryScript(const std::wstring& modulePath, UINT id, bool reg, const Replacements& replacements) {
    Microsoft::WRL::ComPtr<IRegistrar> registrar;
    HRESULT hr = ::CoCreateInstance(CLSID_Registrar, nullptr, CLSCTX_INPROC_SERVER, IID_IRegistrar,
                                    reinterpret_cast<void**>(registrar.GetAddressOf()));
    if (FAILED(hr)) return hr;
    for (const auto& replacement : replacements) {
        hr = registrar->AddReplacement(replacement.first.c_str(), replacement.second.c_str());
        if (FAILED(hr)) return hr;
    }
    return reg ? registrar->ResourceRegister(modulePath.c_str(), id, L"REGISTRY")
               : registrar->ResourceUnregister(modulePath.c_str(), id, L"REGISTRY");
}

}  // namespace com
