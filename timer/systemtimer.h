// Interval timers on the multimedia timer service. Every timer of the
// process lives in one table shared by all uses of the class; the object
// itself holds nothing. Sinks are called on the service's own thread.
#pragma once

#include <windows.h>

#include "com/object.h"
#include "kyutils.h"

namespace ky {

class CSystemTimer : public com::Object<CSystemTimer, ISystemTimer> {
public:
    // A repeat count of 0 fires until KillTimer, 1 fires once, N fires N times.
    STDMETHODIMP SetTimer(unsigned int uiInterval, ULONG dwRepeatCount, ULONG dwUser, ISystemTimerSink* pSink,
                          unsigned int* puiTimerID) override;
    STDMETHODIMP KillTimer(unsigned int uiTimerID) override;

private:
    static void CALLBACK OnExpiry(UINT id, UINT message, DWORD_PTR user, DWORD_PTR, DWORD_PTR);
};

}  // namespace ky
