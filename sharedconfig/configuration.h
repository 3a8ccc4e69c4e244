// The shared configuration manager: hands out outrigged storages and
// streams, private copies of the elements of a compound file that several
// processes share. It keeps nothing of its own (no cache, no open file), so
// any thread may use it; every acquisition is an independent copy.
#pragma once

#include <oaidl.h>

#include "com/object.h"
#include "kyutils.h"

namespace ky {

class CComStgOutriggedConfiguration : public com::Object<CComStgOutriggedConfiguration, IComStgOutriggedConfiguration,
                                                         ISupportErrorInfo, com::FreeThreaded> {
public:
    // S_OK with a copy of the element, S_FALSE with an empty one when the
    // file has no such element; on failure *pstg / *pstm are left as they were.
    STDMETHODIMP AcquireStorage(BSTR bstrStgFilePath, BSTR bstrStorageName, IStorage** pstg) override;
    STDMETHODIMP AcquireStream(BSTR bstrStgFilePath, BSTR bstrStreamName, IStream** pstm) override;

    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID riid) override;
};

}  // namespace ky
