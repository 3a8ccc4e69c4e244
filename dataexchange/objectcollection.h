// Selections passed between views: an active object (the one with the
// focus) and the selected objects, classified as none, one or several.
// Collections are made only by the factory, either from an array or from a
// client's enumerator, and never change once made.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <optional>

#include "com/object.h"
#include "kyutils.h"

namespace ky {

class CCoKyObjectCollection : public com::Object<CCoKyObjectCollection, IKyObjectCollection> {
public:
    // Each collection is initialised exactly once, by one of these.
    HRESULT InitFromArray(IUnknown* active, ULONG count, IUnknown** objects);
    // Without a known type the objects are counted (up to two) on a clone of
    // `objects`; an empty selection keeps no enumerator at all.
    HRESULT InitFromEnum(IUnknown* active, IEnumUnknown* objects, std::optional<KYOBJECTCOLLECTIONTYPE> knownType);

    // IKyObjectCollection
    STDMETHODIMP get_Active(IUnknown** ppObject) override;
    STDMETHODIMP get_type(KYOBJECTCOLLECTIONTYPE* peType) override;
    STDMETHODIMP EnumObjects(IEnumUnknown** ppEnumObjects) override;
    STDMETHODIMP Clone(KYOBJECTCOLLECTIONCLONEPOLICY occpFlags, IKyObjectCollection** ppClonedCollection) override;

private:
    com::ComPtr<IUnknown> m_active;
    com::ComPtr<IEnumUnknown> m_objects;  // never handed out itself, only its clones
    KYOBJECTCOLLECTIONTYPE m_type = KYOCT_NO_OBJECTS;
};

class CCoKyObjectCollectionFactory : public com::Object<CCoKyObjectCollectionFactory, IKyObjectCollectionFactory> {
public:
    STDMETHODIMP CreateObjectCollection(IUnknown* pActiveObject, ULONG ulItemCount, IUnknown** ppObjects,
                                        IKyObjectCollection** ppCollection) override;
    STDMETHODIMP ConvertEnumToObjectCollection(IUnknown* pActiveObject, IEnumUnknown* pEnumObjects,
                                               IKyObjectCollection** ppCollection) override;
};

}  // namespace ky
