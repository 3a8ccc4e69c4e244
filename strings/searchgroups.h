// Search attribute groups: a named, switchable list of LDAP attribute names
// that a directory search offers together, and the ordered set of such
// groups with its factory reset to the built-in groups.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"
#include "strings/persistence.h"

namespace ky {

using GroupPersistence = PersistStreamImpl<CLSID_SearchAttributesGroup>;
using GroupSetPersistence = PersistStreamImpl<CLSID_SearchAttributesGroupSet>;

class CCoSearchAttributesGroup
    : public com::Object<CCoSearchAttributesGroup, ISearchAttributesGroup, com::With<GroupPersistence>,
                         com::Also<IPersist, GroupPersistence>> {
public:
    static constexpr bool kAggregatable = true;

    HRESULT FinalConstruct();

    // ISearchAttributesGroup
    STDMETHODIMP get_Name(BSTR* pbstrName) override;
    STDMETHODIMP put_Name(BSTR bstrName) override;
    STDMETHODIMP get_Active(VARIANT_BOOL* pvbActive) override;
    STDMETHODIMP put_Active(VARIANT_BOOL vbActive) override;
    STDMETHODIMP get_Attributes(IStrings** ppAttributes) override;

    // IPersistStream
    STDMETHODIMP Load(IStream* pStm) override;
    STDMETHODIMP Save(IStream* pStm, BOOL fClearDirty) override;
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* pcbSize) override;

private:
    com::Bstr m_name;
    com::ComPtr<IStrings> m_attributes;
    bool m_active = false;
};

class CCoSearchAttributesGroupSet
    : public com::Object<CCoSearchAttributesGroupSet, ISearchAttributesGroupSet, com::With<GroupSetPersistence>,
                         com::Also<IPersist, GroupSetPersistence>> {
public:
    static constexpr bool kAggregatable = true;

    // ISearchAttributesGroupSet
    STDMETHODIMP get_Count(long* pnCount) override;
    STDMETHODIMP get_Item(VARIANT* pvIndex, ISearchAttributesGroup** ppGroup) override;
    STDMETHODIMP Add(ISearchAttributesGroup* pGroup) override;
    STDMETHODIMP Remove(VARIANT* pvGroup) override;
    STDMETHODIMP Reset() override;

    // IPersistStream
    STDMETHODIMP Load(IStream* pStm) override;
    STDMETHODIMP Save(IStream* pStm, BOOL fClearDirty) override;
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* pcbSize) override;

private:
    // The member that a VARIANT designates: a group (by identity or name),
    // a name, or a position.
    bool Find(const VARIANT& key, size_t* position);
    // The first member that is `group` itself or has its name, in any case.
    bool FindLike(ISearchAttributesGroup* group, size_t* position);
    bool FindNamed(BSTR name, IUnknown* identity, size_t* position);
    HRESULT AddBuiltIn(size_t which);

    std::vector<com::ComPtr<ISearchAttributesGroup>> m_groups;
};

}  // namespace ky
