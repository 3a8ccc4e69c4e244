// Metadata of one kind of directory object: icons by type, the interfaces its
// instances offer, a sorting preference per direction and rules that turn a
// state word into display text. A provider fills it once through
// IKySetObjectMetaData; views then read it through IKyObjectMetaData.
#pragma once

#include <windows.h>

#include <atomic>
#include <map>
#include <memory>
#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"

namespace ky {

class CCoKyObjectMetaData : public com::Object<CCoKyObjectMetaData, IKyObjectMetaData, IKySetObjectMetaData> {
public:
    // The supported interfaces, sorted by their 16 bytes as stored. The list
    // is replaced whole on every insertion, so readers take a snapshot
    // without the object lock and never see it change under them.
    using InterfaceList = std::vector<GUID>;
    static bool Less(const GUID& a, const GUID& b);

    CCoKyObjectMetaData() = default;
    ~CCoKyObjectMetaData() override;

    std::shared_ptr<const InterfaceList> Interfaces() const;

    // IKyObjectMetaData
    STDMETHODIMP get_SupportedInterfaces(IEnumGUID** ppEnumIID) override;
    STDMETHODIMP get_Icon(ULONG dwType, LONG_PTR* phIcon) override;
    STDMETHODIMP get_SortingPreference(VARIANT_BOOL vbAscending, ULONG* pdwPreference) override;
    STDMETHODIMP GetIcons(unsigned int cIcons, ULONG* pdwTypes, LONG_PTR* phIcons) override;
    STDMETHODIMP DecodeState(ULONG dwState, BSTR* pbstrState) override;
    STDMETHODIMP IsInterfaceSupported(REFIID riid) override;

    // IKySetObjectMetaData
    STDMETHODIMP put_SortingPreference(ULONG dwAscending, ULONG dwDescending) override;
    STDMETHODIMP AddIcon(ULONG dwType, LONG_PTR hIcon) override;
    STDMETHODIMP AddIcons(unsigned int cIcons, ULONG* pdwTypes, LONG_PTR* phIcons) override;
    STDMETHODIMP AddSupportedInterface(REFIID riid) override;
    STDMETHODIMP AddSupportedInterfaces(unsigned int cInterfaces, IID* pIIDs) override;
    STDMETHODIMP AddDecodeStateRule(KYDECODESTATERULE eRule, ULONG dwMask, BSTR bstrState) override;

private:
    // Rules form a singly linked list that is only ever appended to, with
    // atomic links: the provider appends and views decode without a lock.
    struct Rule {
        KYDECODESTATERULE kind;
        ULONG mask;
        com::Bstr text;
        std::atomic<Rule*> next{nullptr};
        bool Matches(ULONG state) const;
    };

    com::CriticalSection m_lock;
    std::map<ULONG, LONG_PTR> m_icons;
    std::shared_ptr<const InterfaceList> m_interfaces;  // null while empty
    std::atomic<Rule*> m_rules{nullptr};
    std::atomic<BSTR> m_otherwise{nullptr};  // first non-null text wins
    ULONG m_ascending = 0xFFFFFFFF;
    ULONG m_descending = 0xFFFFFFFF;
};

}  // namespace ky
