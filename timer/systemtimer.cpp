#include "timer/systemtimer.h"

#include <mmsystem.h>

#include <map>
#include <new>

#include "com/raii.h"

namespace ky {

namespace {

// A coarse resolution keeps the service's load low; short intervals lose
// precision, which the timer's users accept.
constexpr UINT kResolutionMs = 100;

struct TimerEntry {
    com::ComPtr<ISystemTimerSink> sink;
    ULONG remaining;  // expiries left; 0 means until killed
    ULONG user;
};

// The process-wide table. Each live timer keeps the module loaded, since
// the service calls back into it. The table is never destroyed: at process
// exit the service's thread may still be running a callback.
struct TimerTable {
    com::CriticalSection lock;
    std::map<UINT, TimerEntry> timers;
};

TimerTable& Table() {
    static TimerTable* table = new TimerTable;
    return *table;
}

// Removes an entry (its sink reference goes with it) under the table lock.
void Remove(TimerTable& table, std::map<UINT, TimerEntry>::iterator it) {
    table.timers.erase(it);
    com::Module::Get().Unlock();
}

HRESULT LastErrorResult() {
    const LONG code = static_cast<LONG>(::GetLastError());
    return code > 0 ? static_cast<HRESULT>(0x80070000ul | (static_cast<ULONG>(code) & 0xFFFF)) : code;
}

}  // namespace

STDMETHODIMP CSystemTimer::SetTimer(unsigned int uiInterval, ULONG dwRepeatCount, ULONG dwUser,
                                    ISystemTimerSink* pSink, unsigned int* puiTimerID) {
    if (!pSink) return E_POINTER;
    TimerTable& table = Table();
    // Held across timeSetEvent so that an early first expiry waits for the entry.
    com::Lock lock(table.lock);
    const UINT mode = dwRepeatCount == 1 ? TIME_ONESHOT : TIME_PERIODIC;
    const MMRESULT id = ::timeSetEvent(uiInterval, kResolutionMs, &CSystemTimer::OnExpiry, dwUser,
                                       mode | TIME_CALLBACK_FUNCTION);
    // The service does not always set a last error: a failure may then
    // answer S_OK without an identifier, which callers must check.
    if (id == 0) return LastErrorResult();
    try {
        auto [it, inserted] = table.timers.try_emplace(id);
        if (inserted) com::Module::Get().Lock();
        it->second = TimerEntry{pSink, dwRepeatCount, dwUser};
    } catch (const std::bad_alloc&) {
        ::timeKillEvent(id);
        return E_OUTOFMEMORY;
    }
    if (puiTimerID) *puiTimerID = id;
    return S_OK;
}

STDMETHODIMP CSystemTimer::KillTimer(unsigned int uiTimerID) {
    if (uiTimerID == 0) return E_INVALIDARG;
    TimerTable& table = Table();
    com::Lock lock(table.lock);
    auto it = table.timers.find(uiTimerID);
    if (it == table.timers.end()) return S_FALSE;
    Remove(table, it);
    return ::timeKillEvent(uiTimerID) == TIMERR_NOERROR ? S_OK : S_FALSE;
}

void CALLBACK CSystemTimer::OnExpiry(UINT id, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR) {
    TimerTable& table = Table();
    com::ComPtr<ISystemTimerSink> sink;
    {
        com::Lock lock(table.lock);
        auto it = table.timers.find(id);
        if (it == table.timers.end()) {
            // Killed in the meantime, or never entered: make sure it stops.
            ::timeKillEvent(id);
            return;
        }
        // Our own reference: KillTimer may drop the table's while the sink runs.
        sink = it->second.sink;
        if (it->second.remaining != 0 && --it->second.remaining == 0) {
            ::timeKillEvent(id);
            Remove(table, it);
        }
    }
    // Outside the lock, so that the sink may set or kill timers itself.
    sink->OnTimer(id, static_cast<ULONG>(user));
}

}  // namespace ky
