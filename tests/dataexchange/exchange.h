// Pieces shared by the data-exchange tests: plain objects that count their
// references, and HGLOBAL text media.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <wrl/client.h>

#include <cstring>
#include <string>

#include "kytest.h"

namespace ky::test {

// An instance of a class of the library, created as a client does.
template <class I>
Microsoft::WRL::ComPtr<I> CreateInstance(const CLSID& clsid) {
    Microsoft::WRL::ComPtr<I> object;
    EXPECT_HR(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(I), &object));
    return object;
}

// QueryInterface of a test object that speaks IUnknown and `iid`.
inline HRESULT AnswerFor(IUnknown* self, REFIID iid, REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    *ppv = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, iid) ? self : nullptr;
    if (!*ppv) return E_NOINTERFACE;
    self->AddRef();
    return S_OK;
}

// An object owned by the test (never deleted through Release) that counts
// its references: a selected object, or the release object of a medium.
class Counted : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return AnswerFor(this, IID_IUnknown, riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override { return ::InterlockedDecrement(&m_refs); }
    LONG Refs() const { return m_refs; }
    void SetRefs(LONG refs) { m_refs = refs; }

private:
    volatile LONG m_refs = 1;
};

// The reference count of a COM object, read through AddRef and Release.
inline LONG RefsOf(IUnknown* p) {
    p->AddRef();
    return static_cast<LONG>(p->Release());
}

inline FORMATETC Format(CLIPFORMAT cf, DWORD tymed, DWORD aspect = DVASPECT_CONTENT) {
    return FORMATETC{cf, nullptr, aspect, -1, tymed};
}

inline HGLOBAL GlobalText(const wchar_t* text) {
    size_t bytes = (std::wcslen(text) + 1) * sizeof(wchar_t);
    HGLOBAL h = ::GlobalAlloc(GMEM_MOVEABLE, bytes);
    std::memcpy(::GlobalLock(h), text, bytes);
    ::GlobalUnlock(h);
    return h;
}

inline std::wstring TextOf(HGLOBAL h) {
    auto* p = static_cast<const wchar_t*>(::GlobalLock(h));
    std::wstring text = p ? p : L"<none>";
    ::GlobalUnlock(h);
    return text;
}

inline STGMEDIUM GlobalMedium(HGLOBAL h, IUnknown* release = nullptr) {
    STGMEDIUM m = {};
    m.tymed = TYMED_HGLOBAL;
    m.hGlobal = h;
    m.pUnkForRelease = release;
    return m;
}

}  // namespace ky::test
