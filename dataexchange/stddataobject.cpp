#include "dataexchange/stddataobject.h"

#include "com/enumerator.h"
#include "com/guard.h"

namespace ky {

namespace {

using FormatEnumerator = com::SnapshotEnumerator<IEnumFORMATETC, FORMATETC>;
using FormatTraits = com::CopyTraits<FORMATETC>;

// The target device and the index do not take part: consumers rarely agree
// with producers on them, and one rendering serves all devices here.
bool Serves(const FORMATETC& stored, const FORMATETC& request) {
    return stored.cfFormat == request.cfFormat && stored.dwAspect == request.dwAspect &&
           (stored.tymed & request.tymed) != 0;
}

// Copies a stream's whole contents to the caller's stream and leaves the
// source's seek position where it was.
HRESULT CopyStream(IStream* source, IStream* target) {
    LARGE_INTEGER zero = {};
    ULARGE_INTEGER position = {};
    HRESULT hr = source->Seek(zero, STREAM_SEEK_CUR, &position);
    if (FAILED(hr)) return hr;
    hr = source->Seek(zero, STREAM_SEEK_SET, nullptr);
    if (FAILED(hr)) return hr;
    ULARGE_INTEGER everything;
    everything.QuadPart = ~0ull;
    hr = source->CopyTo(target, everything, nullptr, nullptr);
    LARGE_INTEGER back;
    back.QuadPart = static_cast<LONGLONG>(position.QuadPart);
    source->Seek(back, STREAM_SEEK_SET, nullptr);
    return hr;
}

}  // namespace

CKyStdDataObject::~CKyStdDataObject() {
    // At process exit the media's owners may be gone already.
    if (!com::Module::Get().ProcessTerminating()) ReleaseEntries();
}

void CKyStdDataObject::ReleaseEntries() {
    for (Entry& entry : m_entries) {
        entry.medium.pUnkForRelease = entry.callerRelease;
        ::ReleaseStgMedium(&entry.medium);
        FormatTraits::Clear(&entry.format);
    }
    m_entries.clear();
}

CKyStdDataObject::Entry* CKyStdDataObject::Find(const FORMATETC& request) {
    for (Entry& entry : m_entries)
        if (Serves(entry.format, request)) return &entry;
    return nullptr;
}

STDMETHODIMP CKyStdDataObject::GetData(FORMATETC* pformatetcIn, STGMEDIUM* pmedium) {
    if (!pformatetcIn || !pmedium) return E_INVALIDARG;
    com::Lock lock(m_lock);
    Entry* entry = Find(*pformatetcIn);
    if (!entry) return DV_E_FORMATETC;
    // The stored medium itself; releasing it releases our reference only.
    *pmedium = entry->medium;
    pmedium->pUnkForRelease = static_cast<IDataObject*>(this);
    AddRef();
    if (pmedium->tymed == TYMED_ISTREAM && pmedium->pstm) pmedium->pstm->AddRef();
    if (pmedium->tymed == TYMED_ISTORAGE && pmedium->pstg) pmedium->pstg->AddRef();
    return S_OK;
}

STDMETHODIMP CKyStdDataObject::GetDataHere(FORMATETC* pformatetc, STGMEDIUM* pmedium) {
    if (!pformatetc || !pmedium) return E_INVALIDARG;
    if (!(pformatetc->tymed & (TYMED_ISTREAM | TYMED_ISTORAGE))) return DV_E_FORMATETC;
    com::Lock lock(m_lock);
    Entry* entry = Find(*pformatetc);
    if (!entry) return DV_E_FORMATETC;
    const STGMEDIUM& stored = entry->medium;
    if (pmedium->tymed != stored.tymed) return DV_E_TYMED;
    if (stored.tymed == TYMED_ISTREAM) {
        if (!pmedium->pstm || !stored.pstm) return E_INVALIDARG;
        return CopyStream(stored.pstm, pmedium->pstm);
    }
    if (stored.tymed == TYMED_ISTORAGE) {
        if (!pmedium->pstg || !stored.pstg) return E_INVALIDARG;
        return stored.pstg->CopyTo(0, nullptr, nullptr, pmedium->pstg);
    }
    return DV_E_TYMED;
}

STDMETHODIMP CKyStdDataObject::QueryGetData(FORMATETC* pformatetc) {
    if (!pformatetc) return E_INVALIDARG;
    com::Lock lock(m_lock);
    return Find(*pformatetc) ? S_OK : S_FALSE;
}

STDMETHODIMP CKyStdDataObject::GetCanonicalFormatEtc(FORMATETC* pformatectIn, FORMATETC* pformatetcOut) {
    if (!pformatectIn || !pformatetcOut) return E_INVALIDARG;
    return DATA_S_SAMEFORMATETC;
}

STDMETHODIMP CKyStdDataObject::SetData(FORMATETC* pformatetc, STGMEDIUM* pmedium, BOOL fRelease) {
    // The caller nominally keeps its media; the object takes them over.
    if (fRelease != FALSE) return E_INVALIDARG;
    if (!pformatetc && !pmedium) {
        com::Lock lock(m_lock);
        ReleaseEntries();
        return S_OK;
    }
    if (!pformatetc || !pmedium) return E_INVALIDARG;

    Entry entry = {};
    // A private copy of the target device: the caller's (or a stub's) may
    // be freed as soon as the call returns.
    HRESULT hr = FormatTraits::Copy(&entry.format, *pformatetc);
    if (FAILED(hr)) return hr;
    entry.medium = *pmedium;
    entry.callerRelease = pmedium->pUnkForRelease;
    entry.medium.pUnkForRelease = static_cast<IDataObject*>(this);
    hr = com::Guard([&] {
        com::Lock lock(m_lock);
        // Older entries of the same format stay first in line.
        m_entries.push_back(entry);
        return S_OK;
    });
    if (FAILED(hr)) FormatTraits::Clear(&entry.format);
    return hr;
}

STDMETHODIMP CKyStdDataObject::EnumFormatEtc(DWORD dwDirection, IEnumFORMATETC** ppenumFormatEtc) {
    if (!ppenumFormatEtc) return E_INVALIDARG;
    *ppenumFormatEtc = nullptr;
    if (dwDirection == DATADIR_SET) return E_FAIL;
    if (dwDirection != DATADIR_GET) return E_INVALIDARG;
    return com::Guard([&] {
        std::vector<FORMATETC> formats;
        {
            com::Lock lock(m_lock);
            formats.reserve(m_entries.size());
            for (const Entry& entry : m_entries) {
                FORMATETC copy;
                HRESULT hr = FormatTraits::Copy(&copy, entry.format);
                if (FAILED(hr)) {
                    for (FORMATETC& f : formats) FormatTraits::Clear(&f);
                    return hr;
                }
                formats.push_back(copy);
            }
        }
        return FormatEnumerator::Create(std::move(formats), ControllingUnknown(), IID_IEnumFORMATETC,
                                        reinterpret_cast<void**>(ppenumFormatEtc));
    });
}

STDMETHODIMP CKyStdDataObject::DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) { return E_NOTIMPL; }

STDMETHODIMP CKyStdDataObject::DUnadvise(DWORD) { return E_NOTIMPL; }

STDMETHODIMP CKyStdDataObject::EnumDAdvise(IEnumSTATDATA**) { return E_NOTIMPL; }

}  // namespace ky
