// Apartment introduction: an object made directly (not through COM) in one
// apartment is handed to another apartment by asking the godfather that
// lives in the object's apartment for it; because the call to the godfather
// crosses the apartment boundary, COM marshals the answer into the caller's.
#pragma once

#include "com/faultguard.h"
#include "com/object.h"
#include "kyutils.h"

namespace ky {

template <class Derived>
class CObjectGodfather : public com::Object<Derived, IObjectGodfather> {
public:
    STDMETHODIMP IntroduceIntoApartment(ULONG_PTR dwUnkPtr, REFIID riid, void** ppvObject) override {
        if (dwUnkPtr == 0) return E_INVALIDARG;
        if (!ppvObject) return E_POINTER;
        *ppvObject = nullptr;
        // The pointer is the caller's word that an object lives there; a
        // dangling one faults, which is answered like any exception.
        HRESULT hr = com::CallCatchingFaults(
            [&]() -> HRESULT {
                try {
                    // The reference QueryInterface adds is the caller's; the godfather keeps nothing.
                    return reinterpret_cast<IUnknown*>(dwUnkPtr)->QueryInterface(riid, ppvObject);
                } catch (...) {
                    return E_UNEXPECTED;
                }
            },
            E_UNEXPECTED);
        if (FAILED(hr)) *ppvObject = nullptr;  // whatever a failing call left there
        return hr;
    }
};

// Lives in the process's multithreaded apartment ("Free").
class CMTAObjectGodfather : public CObjectGodfather<CMTAObjectGodfather> {};

// Lives in the apartment of the thread that first creates it ("Apartment").
class CSTAObjectGodfather : public CObjectGodfather<CSTAObjectGodfather> {};

}  // namespace ky
