// The OPML object model below the document: header, expansion state,
// outline collections, outlines and their attributes. None of these classes
// has a class object: the document creates its header and body, and the
// collections create their elements.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"
#include "opml/collection.h"

namespace OPML {

using com::ComPtr;

// Hands one of an object's own parts to a caller, with a reference.
template <class I, class Part>
HRESULT HandOut(Part* part, I** out) {
    if (!out) return E_POINTER;
    *out = part;
    (*out)->AddRef();
    return S_OK;
}

// One name/value pair of an outline.
class CCoAttribute : public com::Object<CCoAttribute, com::Dual<IOPMLAttribute>> {
public:
    STDMETHODIMP get_Name(BSTR* pbstrName) override;
    STDMETHODIMP put_Name(BSTR bstrName) override;
    STDMETHODIMP get_Value(BSTR* pbstrValue) override;
    STDMETHODIMP put_Value(BSTR bstrValue) override;

    bool NameIs(const wchar_t* name, UINT length);
    HRESULT SetName(const wchar_t* name);
    HRESULT SetName(const wchar_t* name, UINT length);
    HRESULT SetValue(const wchar_t* value, UINT length);
    // Calls `read(name, value)` with the stored strings, under the
    // attribute's lock.
    template <class Reader>
    auto Read(Reader&& read) {
        com::Lock lock(m_lock);
        return read(m_name, m_value);
    }

private:
    com::CriticalSection m_lock;
    // Plain strings rather than BSTRs: short names and values (most of them)
    // are kept inside the object, without an allocation of their own.
    std::wstring m_name;
    std::wstring m_value;
};

// One attribute's name and value as the reader hands them over.
struct TextPair {
    const wchar_t* name;
    UINT nameLength;
    const wchar_t* value;
    UINT valueLength;
};

// The attributes of an outline, in insertion order (the order they are written).
// What a load reads is kept as text in one block, and becomes attribute
// objects only when someone asks for one: most loaded attributes are only
// ever written out again or looked up by name.
class CCoAttributes : public CCollection<CCoAttributes, IOPMLAttributes, CCoAttribute, IOPMLAttribute> {
    using Base = CCollection<CCoAttributes, IOPMLAttributes, CCoAttribute, IOPMLAttribute>;

public:
    // IOPMLAttributes: each call sees the attributes as objects.
    STDMETHODIMP get__NewEnum(IUnknown** ppEnum) override;
    STDMETHODIMP get_Item(VARIANT* pvID, IOPMLAttribute** ppItem) override;
    STDMETHODIMP get_Count(LONG* plCount) override;
    STDMETHODIMP AddNew(IOPMLAttribute** ppItem) override;
    STDMETHODIMP Remove(VARIANT* pvID) override;
    STDMETHODIMP Clear() override;

    // Name lookup: the attribute of that name.
    static bool Matches(CCoAttribute* attribute, BSTR name) { return attribute->NameIs(name, ::SysStringLen(name)); }

    // Appends attributes as read, copied into one block of text.
    HRESULT Load(const TextPair* pairs, size_t count);
    // Calls `visit(name, nameLength, value, valueLength)` for each attribute
    // in order, under the locks: `visit` must not call out of the library.
    template <class Visit>
    void ForEachPair(Visit&& visit);
    // Whether the first attribute of that name has that value (false
    // without one); makes no objects.
    bool ValueIs(const wchar_t* name, const wchar_t* value, UINT length);
    // The first attribute of that name, or null.
    ComPtr<CCoAttribute> Find(const wchar_t* name);
    // The first attribute of that name, appended when missing; atomic, so
    // that two readers of a missing attribute do not both add it.
    HRESULT FindOrAdd(const wchar_t* name, ComPtr<CCoAttribute>& attribute);
    // The attribute at a 0-based position, or null.
    ComPtr<CCoAttribute> At(size_t index);

private:
    // Turns the block into objects after those there are; under the lock.
    HRESULT MakeObjects();
    template <class Visit>
    void ForEachInBlock(Visit&& visit);
    HRESULT Objects() {
        com::Lock lock(m_lock);
        return MakeObjects();
    }

    // For each attribute of the block, its name's and its value's length
    // (each a 32-bit number in two characters), then all names and values.
    std::unique_ptr<wchar_t[]> m_block;
    size_t m_blockCount = 0;
};

namespace detail {
// A 32-bit length of the attribute block, in two characters.
inline void PutPackedLength(wchar_t* at, UINT length) {
    at[0] = static_cast<wchar_t>(length & 0xFFFF);
    at[1] = static_cast<wchar_t>(length >> 16);
}
inline UINT PackedLength(const wchar_t* at) { return static_cast<UINT>(at[0]) | (static_cast<UINT>(at[1]) << 16); }
}  // namespace detail

template <class Visit>
void CCoAttributes::ForEachPair(Visit&& visit) {
    com::Lock lock(m_lock);
    for (const auto& attribute : m_items) {
        attribute->Read([&](const std::wstring& name, const std::wstring& value) {
            visit(name.data(), name.size(), value.data(), value.size());
        });
    }
    ForEachInBlock(visit);
}

template <class Visit>
void CCoAttributes::ForEachInBlock(Visit&& visit) {
    const wchar_t* lengths = m_block.get();
    const wchar_t* text = lengths + 4 * m_blockCount;
    for (size_t i = 0; i < m_blockCount; ++i, lengths += 4) {
        const UINT nameLength = detail::PackedLength(lengths), valueLength = detail::PackedLength(lengths + 2);
        visit(text, size_t{nameLength}, text + nameLength, size_t{valueLength});
        text += nameLength + valueLength;
    }
}

class CCoOutline;

// An ordered list of outlines: the document's body or an outline's SubItems.
class COutlines : public CCollection<COutlines, IOPMLOutlines, CCoOutline, IOPMLOutline> {
public:
    // Name lookup: the outline whose "text" attribute equals the name. The
    // lookup does not add "text" attributes to outlines that lack one.
    static bool Matches(CCoOutline* outline, BSTR name);
};

// An outline: its attributes and its sub-items, nothing else. Text, type and
// the two flags are views over attributes of fixed names.
class CCoOutline : public com::Object<CCoOutline, com::Dual<IOPMLOutline>, IPropertyBag, IPropertyBag2> {
public:
    HRESULT FinalConstruct();

    // IOPMLOutline
    STDMETHODIMP get_Text(BSTR* pbstrText) override;
    STDMETHODIMP put_Text(BSTR bstrText) override;
    STDMETHODIMP get_type(BSTR* pbstrType) override;
    STDMETHODIMP put_type(BSTR bstrType) override;
    STDMETHODIMP get_IsComment(VARIANT_BOOL* pvbIsComment) override;
    STDMETHODIMP put_IsComment(VARIANT_BOOL vbIsComment) override;
    STDMETHODIMP get_IsBreakPoint(VARIANT_BOOL* pvbIsBreakPoint) override;
    STDMETHODIMP put_IsBreakPoint(VARIANT_BOOL vbIsBreakPoint) override;
    STDMETHODIMP get_Attributes(IOPMLAttributes** ppAttributes) override;
    STDMETHODIMP get_SubItems(IOPMLOutlines** ppSubItems) override;

    // IPropertyBag: attributes by name, converted from and to text.
    STDMETHODIMP Read(LPCOLESTR pszPropName, VARIANT* pVar, IErrorLog* pErrorLog) override;
    STDMETHODIMP Write(LPCOLESTR pszPropName, VARIANT* pVar) override;

    // IPropertyBag2
    STDMETHODIMP Read(ULONG cProperties, PROPBAG2* pPropBag, IErrorLog* pErrLog, VARIANT* pvarValue,
                      HRESULT* phrError) override;
    STDMETHODIMP Write(ULONG cProperties, PROPBAG2* pPropBag, VARIANT* pvarValue) override;
    STDMETHODIMP CountProperties(ULONG* pcProperties) override;
    STDMETHODIMP GetPropertyInfo(ULONG iProperty, ULONG cProperties, PROPBAG2* pPropBag,
                                 ULONG* pcProperties) override;
    STDMETHODIMP LoadObject(LPCOLESTR pstrName, DWORD dwHint, IUnknown* pUnkObject, IErrorLog* pErrLog) override;

    // The value of the "text" attribute, without adding it when missing.
    bool TextIs(const wchar_t* text, UINT length);
    // The outline's own collections, for the reader and the writer. The
    // sub-items are made when first asked for (most outlines are leaves);
    // null when that fails for want of memory.
    CCoAttributes* AttributeList() const { return m_attributes.Get(); }
    COutlines* Children();
    // The sub-items if they were ever made, else null.
    COutlines* ExistingChildren() const { return m_subItems.load(std::memory_order_acquire); }
    ~CCoOutline() override;

private:
    HRESULT GetText(const wchar_t* name, BSTR* value);
    HRESULT PutText(const wchar_t* name, BSTR value);
    HRESULT GetFlag(const wchar_t* name, VARIANT_BOOL* value);
    HRESULT PutFlag(const wchar_t* name, VARIANT_BOOL value);
    HRESULT ReadNamed(LPCOLESTR name, VARTYPE type, VARIANT* value);
    HRESULT WriteNamed(LPCOLESTR name, const VARIANT* value);

    // Made with the outline and kept as long as it: no lock needed.
    ComPtr<CCoAttributes> m_attributes;
    // Made once, by whichever thread asks first; owned (one reference).
    std::atomic<COutlines*> m_subItems{nullptr};
};

// The numbers of the expanded outline lines.
class CExpansionState : public com::Object<CExpansionState, com::Dual<IOPMLExpansionState>> {
public:
    STDMETHODIMP get__NewEnum(IUnknown** ppEnum) override;
    STDMETHODIMP get_Item(LONG lindex, LONG* plValue) override;
    STDMETHODIMP get_Count(LONG* plCount) override;
    STDMETHODIMP Add(INT nValue) override;
    STDMETHODIMP Remove(LONG lindex) override;
    STDMETHODIMP Clear() override;

private:
    com::CriticalSection m_lock;
    std::vector<LONG> m_values;
};

// The document's head: title, dates, owner, expansion state, scroll state
// and window edges.
class CHeader : public com::Object<CHeader, com::Dual<IOPMLHeader>> {
public:
    // The vertical scroll state that stands for "not set".
    static constexpr ULONG kNoScrollState = 0xFFFFFFFF;

    HRESULT FinalConstruct();

    STDMETHODIMP get_Title(BSTR* pbstrTitle) override;
    STDMETHODIMP put_Title(BSTR bstrTitle) override;
    STDMETHODIMP get_DateCreated(DATE* pdtCreated) override;
    STDMETHODIMP put_DateCreated(DATE dtCreated) override;
    STDMETHODIMP get_DateModified(DATE* pdtModified) override;
    STDMETHODIMP put_DateModified(DATE dtModified) override;
    STDMETHODIMP get_OwnerName(BSTR* pbstrOwnerName) override;
    STDMETHODIMP put_OwnerName(BSTR bstrOwnerName) override;
    STDMETHODIMP get_OwnerEmail(BSTR* pbstrOwnerEmail) override;
    STDMETHODIMP put_OwnerEmail(BSTR bstrOwnerEmail) override;
    STDMETHODIMP get_ExpansionState(IOPMLExpansionState** ppExpansionState) override;
    STDMETHODIMP get_VertScrollState(ULONG* pdwVertScrollState) override;
    STDMETHODIMP put_VertScrollState(ULONG dwVertScrollState) override;
    STDMETHODIMP get_WindowTop(LONG* plWindowTop) override;
    STDMETHODIMP put_WindowTop(LONG lWindowTop) override;
    STDMETHODIMP get_WindowLeft(LONG* plWindowLeft) override;
    STDMETHODIMP put_WindowLeft(LONG lWindowLeft) override;
    STDMETHODIMP get_WindowBottom(LONG* plWindowBottom) override;
    STDMETHODIMP put_WindowBottom(LONG lWindowBottom) override;
    STDMETHODIMP get_WindowRight(LONG* plWindowRight) override;
    STDMETHODIMP put_WindowRight(LONG lWindowRight) override;

private:
    HRESULT GetString(const com::Bstr& field, BSTR* value);
    HRESULT PutString(com::Bstr& field, BSTR value);

    com::CriticalSection m_lock;
    com::Bstr m_title;
    com::Bstr m_ownerName;
    com::Bstr m_ownerEmail;
    DATE m_created = 0.0;
    DATE m_modified = 0.0;
    ULONG m_vertScrollState = kNoScrollState;
    LONG m_windowTop = 0;
    LONG m_windowLeft = 0;
    LONG m_windowBottom = 0;
    LONG m_windowRight = 0;
    ComPtr<CExpansionState> m_expansionState;  // made with the header, never replaced
};

}  // namespace OPML
