// The table of creatable classes. Its order is the order of registration and
// of class-object lookup.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include "com/classfactory.h"

namespace ky {

struct ObjectMapEntry {
    const CLSID* clsid;
    UINT registryScript;  // REGISTRY resource id
    HRESULT (*createClassObject)(IUnknown** classObject);
    HRESULT (*createInstance)(IUnknown* outer, REFIID riid, void** ppv);
    const wchar_t* (*objectDescription)();
    const void* (*categoryMap)();
    void (*objectMain)(bool starting);
    IUnknown* classObject;  // cached on first use, released when the module ends
    DWORD registerCookie;
};

// Makes the class object of T with the class-object kind `Factory`
// (com::ClassFactory or com::SingletonFactory), cached by the map.
template <class T, template <class> class Factory>
HRESULT CreateCachedClassObject(IUnknown** classObject) {
    *classObject = nullptr;
    com::ComPtr<Factory<T>> factory;
    HRESULT hr = Factory<T>::Make(factory);
    if (FAILED(hr)) return hr;
    factory->MakeCached();
    *classObject = factory->Identity();
    (*classObject)->AddRef();
    return S_OK;
}

template <class T, template <class> class Factory>
constexpr ObjectMapEntry MakeObjectMapEntry(const CLSID& clsid, UINT registryScript) {
    return ObjectMapEntry{&clsid,
                          registryScript,
                          &CreateCachedClassObject<T, Factory>,
                          [](IUnknown* outer, REFIID riid, void** ppv) { return T::CreateInstance(outer, riid, ppv); },
                          &T::GetObjectDescription,
                          &T::GetCategoryMap,
                          &T::ObjectMain,
                          nullptr,
                          0};
}

// The entries, and their number.
ObjectMapEntry* ObjectMap();
size_t ObjectMapSize();

}  // namespace ky
