// Apartment introduction: an object made directly (not through COM) in one
// apartment is handed to another apartment by asking the godfather that
// lives in the object's apartment for it; because the call to the godfather
// crosses the apartment boundary, COM marshals the answer into the caller's.
#pragma once

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
        try {
            // The reference QueryInterface adds is the caller's; the godfather keeps nothing.
            return reinterpret_cast<IUnknown*>(dwUnkPtr)->QueryInterface(riid, ppvObject);
        } catch (...) {
            return E_UNEXPECTED;
        }
    }
};

// Lives in the process's multithreaded apartment ("Free").
class CMTAObjectGodfather : public CObjectGodfather<CMTAObjectGodfather> {};

// Lives in the apartment of the thread that first creates it ("Apartment").
class CSTAObjectGodfather : public CObjectGodfather<CSTAObjectGodfather> {};

}  // namespace ky
