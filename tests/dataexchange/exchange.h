// Pieces shared by the data-exchange tests: a test-owned object that counts
// its references, and HGLOBAL text media.
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
    EXPECT_HR(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&object)));
    return object;
}

// Owned by the test (never deleted through Release): a selected object or the release object of a medium.
class Counted : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override { return *ppv = this, AddRef(), S_OK; }
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override { return ::InterlockedDecrement(&m_refs); }
    LONG Refs() const { return m_refs; }

private:
    volatile LONG m_refs = 1;
};

inline LONG RefsOf(IUnknown* p) { return p->AddRef(), static_cast<LONG>(p->Release()); }

inline FORMATETC Format(CLIPFORMAT cf, DWORD tymed, DWORD aspect = DVASPECT_CONTENT) {
    return FORMATETC{cf, nullptr, aspect, -1, tymed};
}

inline STGMEDIUM GlobalText(const wchar_t* text, IUnknown* release = nullptr) {
    size_t bytes = (std::wcslen(text) + 1) * sizeof(wchar_t);
    STGMEDIUM m = {TYMED_HGLOBAL, {}, release};
    m.hGlobal = ::GlobalAlloc(GMEM_MOVEABLE, bytes);
    std::memcpy(::GlobalLock(m.hGlobal), text, bytes);
    ::GlobalUnlock(m.hGlobal);
    return m;
}

inline std::wstring TextOf(HGLOBAL h) {
    std::wstring text = h ? static_cast<const wchar_t*>(::GlobalLock(h)) : L"<none>";
    return ::GlobalUnlock(h), text;
}

}  // namespace ky::test
