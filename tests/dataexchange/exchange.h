// Pieces shared by the data-exchange tests: test-owned objects that count
// their references, and HGLOBAL text media.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <wrl/client.h>

#include <cstring>
#include <string>

#include "kytest.h"

namespace ky::test {

template <class I>
Microsoft::WRL::ComPtr<I> CreateInstance(const CLSID& clsid) {
    Microsoft::WRL::ComPtr<I> object;
    EXPECT_HR(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(I), &object));
    return object;
}

// An object owned by the test (never deleted through Release) that counts
// its references: a selected object, the release object of a medium, or an
// outer object that aggregates.
class Counted : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = IsEqualIID(riid, IID_IUnknown) ? this : nullptr;
        if (!*ppv) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override { return ::InterlockedDecrement(&m_refs); }
    LONG Refs() const { return m_refs; }

private:
    volatile LONG m_refs = 1;
};

inline LONG RefsOf(IUnknown* p) {
    p->AddRef();
    return static_cast<LONG>(p->Release());
}

inline FORMATETC Format(CLIPFORMAT cf, DWORD tymed, DWORD aspect = DVASPECT_CONTENT) {
    return FORMATETC{cf, nullptr, aspect, -1, tymed};
}

inline STGMEDIUM GlobalText(const wchar_t* text, IUnknown* release = nullptr) {
    size_t bytes = (std::wcslen(text) + 1) * sizeof(wchar_t);
    STGMEDIUM m = {};
    m.tymed = TYMED_HGLOBAL;
    m.hGlobal = ::GlobalAlloc(GMEM_MOVEABLE, bytes);
    std::memcpy(::GlobalLock(m.hGlobal), text, bytes);
    ::GlobalUnlock(m.hGlobal);
    m.pUnkForRelease = release;
    return m;
}

inline std::wstring TextOf(HGLOBAL h) {
    auto* p = static_cast<const wchar_t*>(::GlobalLock(h));
    std::wstring text = p ? p : L"<none>";
    ::GlobalUnlock(h);
    return text;
}

}  // namespace ky::test
