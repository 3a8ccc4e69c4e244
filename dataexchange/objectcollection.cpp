#include "dataexchange/objectcollection.h"

#include <vector>

#include "com/enumerator.h"
#include "com/guard.h"

namespace ky {

namespace {

using ObjectEnumerator = com::SnapshotEnumerator<IEnumUnknown, IUnknown*>;

KYOBJECTCOLLECTIONTYPE TypeFromCount(ULONG count) {
    if (count == 0) return KYOCT_NO_OBJECTS;
    return count == 1 ? KYOCT_SINGLE_OBJECT : KYOCT_MULTIPLE_OBJECTS;
}

// Makes a collection, initialises it and hands it out; a collection whose
// initialisation failed is destroyed.
template <class Init>
HRESULT MakeCollection(Init&& init, IKyObjectCollection** result) {
    com::ComPtr<CCoKyObjectCollection> collection;
    HRESULT hr = CCoKyObjectCollection::Make(collection);
    if (FAILED(hr)) return hr;
    hr = init(*collection.Get());
    if (FAILED(hr)) return hr;
    *result = collection.Detach();
    return S_OK;
}

}  // namespace

HRESULT CCoKyObjectCollection::InitFromArray(IUnknown* active, ULONG count, IUnknown** objects) {
    if (!active) return E_INVALIDARG;
    if ((count == 0) != (objects == nullptr)) return E_INVALIDARG;
    if (m_active) return E_UNEXPECTED;
    m_active = active;
    m_type = TypeFromCount(count);
    // The enumerator keeps its own copy of the array, with a reference on
    // each object: the caller may free its array at once. An empty array
    // still gives an (empty) enumerator.
    return com::Guard([&] {
        std::vector<IUnknown*> items(objects, objects + count);
        for (IUnknown* item : items)
            if (item) item->AddRef();
        com::ComPtr<ObjectEnumerator> e;
        HRESULT hr = ObjectEnumerator::Make(e, std::move(items));
        if (FAILED(hr)) return E_OUTOFMEMORY;
        m_objects = e;
        return S_OK;
    });
}

HRESULT CCoKyObjectCollection::InitFromEnum(IUnknown* active, IEnumUnknown* objects,
                                            std::optional<KYOBJECTCOLLECTIONTYPE> knownType) {
    if (!active) return E_INVALIDARG;
    if (!objects && knownType.value_or(KYOCT_NO_OBJECTS) != KYOCT_NO_OBJECTS) return E_INVALIDARG;
    if (m_active) return E_UNEXPECTED;
    m_active = active;
    m_type = knownType.value_or(KYOCT_NO_OBJECTS);
    if (!objects) return S_OK;

    if (!knownType) {
        // Counting runs on a clone, so the caller's enumerator does not move;
        // two objects are enough to tell one from several.
        com::ComPtr<IEnumUnknown> counter;
        HRESULT hr = objects->Clone(&counter);
        if (FAILED(hr)) return hr;
        if (!counter) return E_UNEXPECTED;
        IUnknown* fetched[2] = {nullptr, nullptr};
        ULONG count = 0;
        hr = counter->Next(2, fetched, &count);
        if (FAILED(hr)) return hr;
        if (count > 2) count = 2;
        for (ULONG i = 0; i < count; ++i)
            if (fetched[i]) fetched[i]->Release();
        m_type = TypeFromCount(count);
    }
    // Unlike an empty array, an empty enumerator leaves no enumerator behind.
    if (m_type == KYOCT_NO_OBJECTS) return S_OK;
    com::ComPtr<IEnumUnknown> copy;
    HRESULT hr = objects->Clone(&copy);
    if (FAILED(hr)) return hr;
    if (!copy) return E_UNEXPECTED;
    m_objects = copy;
    return S_OK;
}

STDMETHODIMP CCoKyObjectCollection::get_Active(IUnknown** ppObject) {
    if (!ppObject) return E_POINTER;
    return m_active.CopyTo(ppObject);
}

STDMETHODIMP CCoKyObjectCollection::get_type(KYOBJECTCOLLECTIONTYPE* peType) {
    if (!peType) return E_POINTER;
    *peType = m_type;
    return S_OK;
}

STDMETHODIMP CCoKyObjectCollection::EnumObjects(IEnumUnknown** ppEnumObjects) {
    if (!ppEnumObjects) return E_POINTER;
    *ppEnumObjects = nullptr;
    if (!m_objects) return E_UNEXPECTED;
    // A clone each time: every caller starts where the stored one stands.
    return m_objects->Clone(ppEnumObjects);
}

STDMETHODIMP CCoKyObjectCollection::Clone(KYOBJECTCOLLECTIONCLONEPOLICY occpFlags,
                                          IKyObjectCollection** ppClonedCollection) {
    if (!ppClonedCollection) return E_POINTER;
    *ppClonedCollection = nullptr;
    switch (occpFlags) {
        case KYOCCP_CLONEALL:
            return MakeCollection(
                [&](CCoKyObjectCollection& c) { return c.InitFromEnum(m_active.Get(), m_objects.Get(), m_type); },
                ppClonedCollection);
        case KYOCCP_CONVERTTOSINGLEOBJECT:
            return MakeCollection(
                [&](CCoKyObjectCollection& c) {
                    IUnknown* only = m_active.Get();
                    return c.InitFromArray(only, 1, &only);
                },
                ppClonedCollection);
        case KYOCCP_IGNOREOBJECTS:
            return MakeCollection(
                [&](CCoKyObjectCollection& c) { return c.InitFromEnum(m_active.Get(), nullptr, KYOCT_NO_OBJECTS); },
                ppClonedCollection);
        default:
            return E_INVALIDARG;
    }
}

STDMETHODIMP CCoKyObjectCollectionFactory::CreateObjectCollection(IUnknown* pActiveObject, ULONG ulItemCount,
                                                                  IUnknown** ppObjects,
                                                                  IKyObjectCollection** ppCollection) {
    if (!ppCollection) return E_POINTER;
    *ppCollection = nullptr;
    return MakeCollection(
        [&](CCoKyObjectCollection& c) { return c.InitFromArray(pActiveObject, ulItemCount, ppObjects); },
        ppCollection);
}

STDMETHODIMP CCoKyObjectCollectionFactory::ConvertEnumToObjectCollection(IUnknown* pActiveObject,
                                                                         IEnumUnknown* pEnumObjects,
                                                                         IKyObjectCollection** ppCollection) {
    if (!ppCollection) return E_POINTER;
    *ppCollection = nullptr;
    return MakeCollection(
        [&](CCoKyObjectCollection& c) { return c.InitFromEnum(pActiveObject, pEnumObjects, std::nullopt); },
        ppCollection);
}

}  // namespace ky
