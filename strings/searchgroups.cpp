#include "strings/searchgroups.h"

#include "com/guard.h"
#include "com/property.h"
#include "contract/resultcodes.h"
#include "resources/resource.h"
#include "strings/records.h"

namespace ky {

namespace {

// The first field of both persisted forms.
constexpr ULONG kFormatVersion = 0x07112003;

// Group names compare without regard to case.
constexpr ULONG kNameFlags = NORM_IGNORECASE;

bool NamesEqual(BSTR a, BSTR b) { return ::VarBstrCmp(a, b, LOCALE_USER_DEFAULT, kNameFlags) == VARCMP_EQ; }

// The built-in groups, in order; their names are string resources
// IDS_SEARCHGROUP_FIRST onwards so that they can be translated. "gecos" and
// "ou" belong to two groups each on purpose.
struct BuiltInGroup {
    bool active;
    const wchar_t* attributes[14];  // up to the first null
};

const BuiltInGroup kBuiltInGroups[] = {
    {true,
     {L"name", L"cn", L"sn", L"displayName", L"givenName", L"uid", L"initials", L"gecos", L"ou", L"dc", L"o", L"group",
      L"dmdName"}},
    {true, {L"description", L"labeledURI"}},
    {false,
     {L"telephoneNumber", L"mobile", L"pager", L"facsimileTelephoneNumber", L"homePhone", L"telexNumber",
      L"destinationIndicator", L"gecos"}},
    {false,
     {L"c", L"st", L"street", L"homePostalAddress", L"postalAddress", L"registeredAddress", L"postalCode",
      L"postOfficeBox", L"x121Address", L"mail", L"roomNumber", L"physicalDeliveryOfficeName", L"l"}},
    {false,
     {L"businessCategory", L"title", L"manager", L"secretary", L"employeeType", L"employeeNumber", L"departmentNumber",
      L"userPKCS12", L"ou"}},
};
static_assert(sizeof(kBuiltInGroups) / sizeof(kBuiltInGroups[0]) == IDS_SEARCHGROUP_LAST - IDS_SEARCHGROUP_FIRST + 1,
              "one name resource per built-in group");

com::ComPtr<IUnknown> IdentityOf(IUnknown* object) {
    com::ComPtr<IUnknown> identity;
    if (object) object->QueryInterface(IID_PPV_ARGS(&identity));
    return identity;
}

// Passes every attribute of `from` to Add of `into`'s attributes, whose
// uniqueness decides what is kept.
HRESULT MergeAttributes(ISearchAttributesGroup* from, ISearchAttributesGroup* into) {
    com::ComPtr<IStrings> source, target;
    HRESULT hr = from->get_Attributes(&source);
    if (SUCCEEDED(hr)) hr = into->get_Attributes(&target);
    long count = 0;
    if (SUCCEEDED(hr)) hr = source->get_Count(&count);
    for (long i = 0; SUCCEEDED(hr) && i < count; ++i) {
        com::Variant index;
        V_VT(&index) = VT_I4;
        V_I4(&index) = i;
        com::Bstr attribute;
        hr = source->get_Item(index, attribute.Out());
        if (SUCCEEDED(hr)) hr = target->Add(attribute);
    }
    return FAILED(hr) ? hr : S_OK;
}

template <class Persist>
HRESULT SizeOf(IUnknown* object, ULARGE_INTEGER* size) {
    com::ComPtr<Persist> persist;
    HRESULT hr = object->QueryInterface(IID_PPV_ARGS(&persist));
    if (FAILED(hr)) return hr;
    return persist->GetSizeMax(size);
}

HRESULT ReadVersion(IStream* stream) {
    ULONG version = 0;
    HRESULT hr = records::ReadUInt32(stream, &version);
    if (FAILED(hr)) return hr;
    return version == kFormatVersion ? S_OK : E_FAIL;
}

}  // namespace

// --- Group ---------------------------------------------------------------------

HRESULT CCoSearchAttributesGroup::FinalConstruct() {
    // A group's attribute names are unique regardless of case.
    HRESULT hr = ::CoCreateInstance(CLSID_KyStrings, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_attributes));
    if (SUCCEEDED(hr)) hr = m_attributes->put_UniqueStrings(VARIANT_TRUE);
    if (SUCCEEDED(hr)) hr = m_attributes->put_CompareFlags(NORM_IGNORECASE);
    return hr;
}

STDMETHODIMP CCoSearchAttributesGroup::get_Name(BSTR* pbstrName) { return com::GetLocked(m_lock, m_name, pbstrName); }

STDMETHODIMP CCoSearchAttributesGroup::put_Name(BSTR bstrName) {
    if (::SysStringLen(bstrName) == 0) return E_INVALIDARG;
    com::Lock lock(m_lock);
    return m_name.Assign(bstrName);
}

STDMETHODIMP CCoSearchAttributesGroup::get_Active(VARIANT_BOOL* pvbActive) {
    return com::GetLocked(m_lock, m_active, pvbActive);
}

// Only exactly VARIANT_TRUE makes the group active.
STDMETHODIMP CCoSearchAttributesGroup::put_Active(VARIANT_BOOL vbActive) {
    return com::PutLocked(m_lock, m_active, vbActive == VARIANT_TRUE);
}

STDMETHODIMP CCoSearchAttributesGroup::get_Attributes(IStrings** ppAttributes) {
    if (!ppAttributes) return E_POINTER;
    *ppAttributes = nullptr;
    com::Lock lock(m_lock);
    if (!m_attributes) return E_UNEXPECTED;
    return m_attributes.CopyTo(ppAttributes);
}

STDMETHODIMP CCoSearchAttributesGroup::Load(IStream* pStm) {
    if (!pStm) return E_POINTER;
    com::Lock lock(m_lock);
    // Everything is read before anything is replaced, so a bad stream leaves
    // the group as it was.
    HRESULT hr = ReadVersion(pStm);
    if (FAILED(hr)) return hr;
    com::Bstr name;
    hr = records::ReadString(pStm, name.Out());
    if (FAILED(hr)) return hr;
    ULONG active = 0;
    hr = records::ReadUInt32(pStm, &active);
    if (FAILED(hr)) return hr;
    // The loaded collection keeps what it was loaded with: uniqueness and
    // compare flags are not part of the data.
    com::ComPtr<IStrings> attributes;
    hr = records::ReadObject(pStm, IID_PPV_ARGS(&attributes));
    if (FAILED(hr)) return hr;
    m_name = std::move(name);
    m_active = active != 0;
    m_attributes = std::move(attributes);
    m_dirty = false;
    return S_OK;
}

STDMETHODIMP CCoSearchAttributesGroup::Save(IStream* pStm, BOOL fClearDirty) {
    if (!pStm) return E_POINTER;
    com::Lock lock(m_lock);
    if (!m_attributes) return E_UNEXPECTED;
    HRESULT hr = records::WriteUInt32(pStm, kFormatVersion);
    if (SUCCEEDED(hr)) hr = records::WriteString(pStm, m_name);
    if (SUCCEEDED(hr)) hr = records::WriteUInt32(pStm, m_active ? 1 : 0);
    if (SUCCEEDED(hr)) hr = records::WriteObject(pStm, m_attributes.Get());
    return SaveDone(hr, fClearDirty);
}

STDMETHODIMP CCoSearchAttributesGroup::GetSizeMax(ULARGE_INTEGER* pcbSize) {
    if (!pcbSize) return E_POINTER;
    com::Lock lock(m_lock);
    if (!m_attributes) return E_UNEXPECTED;
    // The version, Active and the class identifier are left out: an
    // underestimate that callers of this class have always been given.
    ULARGE_INTEGER size;
    HRESULT hr = SizeOf<IPersistStream>(m_attributes.Get(), &size);
    if (FAILED(hr)) return hr;
    pcbSize->QuadPart = size.QuadPart + m_name.ByteLength() + 6;
    return S_OK;
}

// --- Set -----------------------------------------------------------------------

STDMETHODIMP CCoSearchAttributesGroupSet::get_Count(long* pnCount) {
    if (!pnCount) return E_POINTER;
    com::Lock lock(m_lock);
    *pnCount = static_cast<long>(m_groups.size());
    return S_OK;
}

STDMETHODIMP CCoSearchAttributesGroupSet::get_Item(VARIANT* pvIndex, ISearchAttributesGroup** ppGroup) {
    if (!ppGroup) return E_POINTER;
    *ppGroup = nullptr;
    if (!pvIndex) return E_POINTER;
    com::Lock lock(m_lock);
    size_t position;
    if (!Find(*pvIndex, &position)) return E_KY_ELEMENTNOTFOUND;
    return m_groups[position].CopyTo(ppGroup);
}

STDMETHODIMP CCoSearchAttributesGroupSet::Add(ISearchAttributesGroup* pGroup) {
    if (!pGroup) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        size_t position;
        if (!FindLike(pGroup, &position)) {
            m_groups.emplace_back(pGroup);
            m_dirty = true;
            return S_OK;
        }
        // A group already in the set has nothing to add to itself.
        if (IdentityOf(m_groups[position].Get()).Get() == IdentityOf(pGroup).Get()) return S_OK;
        // Merging leaves the set's dirty flag alone.
        return MergeAttributes(pGroup, m_groups[position].Get());
    });
}

STDMETHODIMP CCoSearchAttributesGroupSet::Remove(VARIANT* pvGroup) {
    com::Lock lock(m_lock);
    if (!pvGroup) {
        m_groups.clear();
        m_dirty = true;
        return S_OK;
    }
    size_t position;
    if (!Find(*pvGroup, &position)) return E_KY_ELEMENTNOTFOUND;
    m_groups.erase(m_groups.begin() + static_cast<ptrdiff_t>(position));
    m_dirty = true;
    return S_OK;
}

STDMETHODIMP CCoSearchAttributesGroupSet::Reset() {
    com::Lock lock(m_lock);
    HRESULT hr = Remove(nullptr);
    // AddBuiltIn answers S_FALSE when the group's name is missing, which ends the list.
    for (size_t i = 0; hr == S_OK && i < sizeof(kBuiltInGroups) / sizeof(kBuiltInGroups[0]); ++i) {
        hr = AddBuiltIn(i);
    }
    m_dirty = true;
    return FAILED(hr) ? hr : S_OK;
}

STDMETHODIMP CCoSearchAttributesGroupSet::Load(IStream* pStm) {
    if (!pStm) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        m_groups.clear();
        HRESULT hr = ReadVersion(pStm);
        ULONG count = 0;
        if (SUCCEEDED(hr)) hr = records::ReadUInt32(pStm, &count);
        // Groups are appended as read, without merging; what was read before
        // a failure stays.
        for (ULONG i = 0; SUCCEEDED(hr) && i < count; ++i) {
            com::ComPtr<ISearchAttributesGroup> group;
            hr = records::ReadObject(pStm, IID_PPV_ARGS(&group));
            if (SUCCEEDED(hr)) m_groups.push_back(std::move(group));
        }
        if (FAILED(hr)) return hr;
        m_dirty = false;
        return S_OK;
    });
}

STDMETHODIMP CCoSearchAttributesGroupSet::Save(IStream* pStm, BOOL fClearDirty) {
    if (!pStm) return E_POINTER;
    com::Lock lock(m_lock);
    HRESULT hr = records::WriteUInt32(pStm, kFormatVersion);
    if (SUCCEEDED(hr)) hr = records::WriteUInt32(pStm, static_cast<ULONG>(m_groups.size()));
    for (size_t i = 0; SUCCEEDED(hr) && i < m_groups.size(); ++i) hr = records::WriteObject(pStm, m_groups[i].Get());
    return SaveDone(hr, fClearDirty);
}

STDMETHODIMP CCoSearchAttributesGroupSet::GetSizeMax(ULARGE_INTEGER* pcbSize) {
    if (!pcbSize) return E_POINTER;
    com::Lock lock(m_lock);
    // The class identifiers of the records are not counted.
    ULONGLONG total = 8;
    for (const auto& group : m_groups) {
        ULARGE_INTEGER size;
        HRESULT hr = SizeOf<IPersistStream>(group.Get(), &size);
        if (FAILED(hr)) return hr;
        total += size.LowPart;
    }
    pcbSize->QuadPart = total;
    return S_OK;
}

bool CCoSearchAttributesGroupSet::Find(const VARIANT& key, size_t* position) {
    switch (V_VT(&key)) {
        case VT_EMPTY:
            return false;
        case VT_UNKNOWN: {
            com::ComPtr<ISearchAttributesGroup> group;
            if (!V_UNKNOWN(&key) || FAILED(V_UNKNOWN(&key)->QueryInterface(IID_PPV_ARGS(&group)))) return false;
            return FindLike(group.Get(), position);
        }
        case VT_BSTR:
            return FindNamed(V_BSTR(&key), nullptr, position);
        default: {
            com::Variant number;
            if (FAILED(::VariantChangeType(&number, const_cast<VARIANT*>(&key), 0, VT_I4))) return false;
            if (V_I4(&number) < 0 || static_cast<size_t>(V_I4(&number)) >= m_groups.size()) return false;
            *position = static_cast<size_t>(V_I4(&number));
            return true;
        }
    }
}

bool CCoSearchAttributesGroupSet::FindLike(ISearchAttributesGroup* group, size_t* position) {
    com::Bstr name;
    if (FAILED(group->get_Name(name.Out()))) return false;
    return FindNamed(name, IdentityOf(group).Get(), position);
}

bool CCoSearchAttributesGroupSet::FindNamed(BSTR name, IUnknown* identity, size_t* position) {
    for (size_t i = 0; i < m_groups.size(); ++i) {
        if (identity && IdentityOf(m_groups[i].Get()).Get() == identity) {
            *position = i;
            return true;
        }
        com::Bstr memberName;
        if (SUCCEEDED(m_groups[i]->get_Name(memberName.Out())) && NamesEqual(memberName, name)) {
            *position = i;
            return true;
        }
    }
    return false;
}

HRESULT CCoSearchAttributesGroupSet::AddBuiltIn(size_t which) {
    const BuiltInGroup& builtIn = kBuiltInGroups[which];
    // A missing name ends the built-in groups early; that is not a failure.
    const wchar_t* text = nullptr;
    int length = ::LoadStringW(com::Module::Get().Handle(), IDS_SEARCHGROUP_FIRST + static_cast<UINT>(which),
                               reinterpret_cast<LPWSTR>(&text), 0);
    if (length <= 0) return S_FALSE;
    com::Bstr name(text, static_cast<UINT>(length));
    if (name.IsNull()) return E_OUTOFMEMORY;
    com::ComPtr<ISearchAttributesGroup> group;
    HRESULT hr = ::CoCreateInstance(CLSID_SearchAttributesGroup, nullptr, CLSCTX_ALL, IID_PPV_ARGS(&group));
    if (SUCCEEDED(hr)) hr = group->put_Name(name);
    com::ComPtr<IStrings> attributes;
    if (SUCCEEDED(hr)) hr = group->get_Attributes(&attributes);
    for (const wchar_t* const* attribute = builtIn.attributes; SUCCEEDED(hr) && *attribute; ++attribute) {
        com::Bstr copy(*attribute);
        hr = copy.IsNull() ? E_OUTOFMEMORY : attributes->Add(copy);
    }
    if (SUCCEEDED(hr)) hr = group->put_Active(builtIn.active ? VARIANT_TRUE : VARIANT_FALSE);
    if (SUCCEEDED(hr)) hr = Add(group.Get());
    return hr;
}

}  // namespace ky
