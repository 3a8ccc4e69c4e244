// A general-purpose data object: clients fill it with (format, medium) pairs
// and hand it to the clipboard or to drag and drop; consumers read the pairs
// back. It hands out the stored media themselves, not copies, and owns them:
// whatever is stored is released with the entry.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"

namespace ky {

class CKyStdDataObject : public com::Object<CKyStdDataObject, IDataObject> {
public:
    static constexpr bool kAggregatable = true;

    CKyStdDataObject() = default;
    ~CKyStdDataObject() override;

    // IDataObject
    STDMETHODIMP GetData(FORMATETC* pformatetcIn, STGMEDIUM* pmedium) override;
    STDMETHODIMP GetDataHere(FORMATETC* pformatetc, STGMEDIUM* pmedium) override;
    STDMETHODIMP QueryGetData(FORMATETC* pformatetc) override;
    STDMETHODIMP GetCanonicalFormatEtc(FORMATETC* pformatectIn, FORMATETC* pformatetcOut) override;
    STDMETHODIMP SetData(FORMATETC* pformatetc, STGMEDIUM* pmedium, BOOL fRelease) override;
    STDMETHODIMP EnumFormatEtc(DWORD dwDirection, IEnumFORMATETC** ppenumFormatEtc) override;
    STDMETHODIMP DAdvise(FORMATETC* pformatetc, DWORD advf, IAdviseSink* pAdvSink, DWORD* pdwConnection) override;
    STDMETHODIMP DUnadvise(DWORD dwConnection) override;
    STDMETHODIMP EnumDAdvise(IEnumSTATDATA** ppenumAdvise) override;

private:
    struct Entry {
        FORMATETC format;         // with a target device of our own
        STGMEDIUM medium;         // released through this object, which holds no reference on itself
        IUnknown* callerRelease;  // the release object the caller's medium came with
    };

    // The first entry that serves a request, or null. Under the lock.
    Entry* Find(const FORMATETC& request);
    void ReleaseEntries();

    com::CriticalSection m_lock;
    std::vector<Entry> m_entries;  // in the order they were set
};

}  // namespace ky
