// The helper object: names for named kernel objects, this library's
// resources as streams, the application's folders and a private temporary
// folder, and (through an aggregated orderer) the order of property pages.
// It keeps no state of its own; the temporary folder is the process's.
#pragma once

#include "com/object.h"
#include "kyutils.h"

namespace ky {

class CCoKyHelpers
    : public com::Object<CCoKyHelpers, IKyStdStrings, IKyResourceData, IKyFileSystem, com::FreeThreaded> {
public:
    static void ObjectMain(bool starting);
    HRESULT FinalConstruct();
    HRESULT QueryOther(REFIID riid, void** ppv);

    // IKyStdStrings
    STDMETHODIMP CreateKernelObjectName(long bTerminalGlobal, long bIncludeUserName, BSTR bstrSuffix,
                                        BSTR* pbstrName) override;

    // IKyResourceData
    STDMETHODIMP LoadResource(VARIANT* pvType, VARIANT* pvName, IStream** ppStream) override;

    // IKyFileSystem
    STDMETHODIMP GetApplicationDataFolder(BSTR* pbstrPath) override;
    // <common files folder>\Norvane Shared\ (not created here).
    STDMETHODIMP GetSharedFolder(BSTR* pbstrPath) override;
    // This process's private temporary folder, made on first use.
    STDMETHODIMP GetTemporaryFolder(BSTR* pbstrPath) override;
    STDMETHODIMP GetDocumentsFolder(BSTR* pbstrPath) override;
    STDMETHODIMP CreateDirectoryPath(LPCWSTR pszPath) override;
    // A new, empty, uniquely named file in the private temporary folder.
    STDMETHODIMP CreateTemporaryFileName(BSTR bstrExtension, BSTR* pbstrPath) override;
    // Removes the private temporary folder; the next use makes a new one.
    STDMETHODIMP RemoveTemporaryFolder() override;

private:
    com::ComPtr<IUnknown> m_orderer;  // the aggregated orderer's own unknown
};

}  // namespace ky
