// No exception may cross a COM interface. Method bodies that use the standard
// library (which reports allocation failure by throwing) run inside Guard,
// which turns what escapes into an HRESULT.
#pragma once

#include <windows.h>

#include <new>
#include <utility>

namespace com {

// Thrown by library code to leave a method with a specific result.
struct Error {
    HRESULT hr;
};

inline void ThrowIfFailed(HRESULT hr) {
    if (FAILED(hr)) throw Error{hr};
}

template <class Body>
HRESULT Guard(Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const Error& error) {
        return error.hr;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

}  // namespace com
