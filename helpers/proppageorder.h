// The order of property pages, from two settings kept beside each page's
// class registration: "KyPropPageGroup" (1 to 3) and "KyPropPageOrder"
// (text). Groups decide first, then orders; both compare as text, ignoring
// case, and a page without a setting goes after those with one. Every call
// reads the registry afresh. Made only as a part of the helper object.
#pragma once

#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"

namespace ky {

class CCoKyPropPageOrderer : public com::Object<CCoKyPropPageOrderer, IKyPropPageOrder> {
public:
    static constexpr bool kAggregatable = true;

    STDMETHODIMP IsPrecedingByOrder(CLSID clsidPropPageOne, CLSID clsidPropPageTwo, int* pnResult) override;
    // Ranges of up to 32 pages keep equal-ranked pages in their input order.
    STDMETHODIMP Sort(unsigned int cPropPages, CLSID* pclsidPropPages) override;
    STDMETHODIMP GetPropPageData(CLSID clsidPropPage, KYPROPPAGEDATA eData, BSTR* pbstrData) override;
    STDMETHODIMP SetPropPageData(CLSID clsidPropPage, KYPROPPAGEDATA eData, BSTR bstrData) override;

private:
    void ReadKey(const CLSID& page, com::Bstr* group, com::Bstr* order);
};

}  // namespace ky
