// The exported entry points of kyutils.dll.
#include <windows.h>
#include <objbase.h>

#include "module.h"
#include "objectmap.h"

// The merged proxy/stub of the library's own interfaces (dlldata.c, built
// with ENTRY_PREFIX=Prx).
extern "C" {
BOOL WINAPI PrxDllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);
HRESULT STDAPICALLTYPE PrxDllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);
HRESULT STDAPICALLTYPE PrxDllCanUnloadNow();
HRESULT STDAPICALLTYPE PrxDllRegisterServer();
HRESULT STDAPICALLTYPE PrxDllUnregisterServer();
}

namespace {

ky::CKyUtilsModule g_module;
com::CriticalSection g_classObjectLock;

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        if (!PrxDllMain(instance, reason, reserved)) return FALSE;
        return g_module.ProcessAttach(instance);
    case DLL_PROCESS_DETACH:
        PrxDllMain(instance, reason, reserved);
        // A non-null `reserved` means the process is exiting.
        g_module.ProcessDetach(reserved != nullptr);
        return TRUE;
    default:
        return TRUE;
    }
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    if (PrxDllGetClassObject(rclsid, riid, ppv) == S_OK) return S_OK;
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    for (size_t i = 0; i < ky::ObjectMapSize(); ++i) {
        ky::ObjectMapEntry& entry = ky::ObjectMap()[i];
        if (!IsEqualCLSID(*entry.clsid, rclsid)) continue;
        IUnknown* classObject = nullptr;
        {
            // One class object per class, however many threads ask at once.
            com::Lock lock(g_classObjectLock);
            if (!entry.classObject) {
                HRESULT hr = entry.createClassObject(&entry.classObject);
                if (FAILED(hr)) return hr;
            }
            classObject = entry.classObject;
            classObject->AddRef();
        }
        HRESULT hr = classObject->QueryInterface(riid, ppv);
        classObject->Release();
        return hr;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() {
    // Only a failure of the proxy/stub's answer is passed on, not its S_FALSE.
    HRESULT hr = PrxDllCanUnloadNow();
    if (FAILED(hr)) return hr;
    return g_module.LockCount() > 0 ? S_FALSE : S_OK;
}

STDAPI DllRegisterServer() {
    HRESULT hr = g_module.RegisterServer();
    if (FAILED(hr)) return hr;
    return PrxDllRegisterServer();
}

STDAPI DllUnregisterServer() {
    HRESULT hr = g_module.UnregisterServer();
    if (FAILED(hr)) return hr;
    return PrxDllUnregisterServer();
}
