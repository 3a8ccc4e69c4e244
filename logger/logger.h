// The process-wide diagnostic message bus: numbered channels with event
// masks, listeners that receive every accepted message as text, and threads
// that hold their output back to deliver it in one burst.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <unordered_map>
#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"

namespace ky {

class CKyLogger : public com::Object<CKyLogger, IKyLogger> {
public:
    // A locked thread's queue is flushed when it holds this many messages.
    static constexpr size_t kFlushThreshold = 16;
    // Queues grow by this many entries at a time.
    static constexpr size_t kQueueBlock = 10;

    // IKyLogger
    STDMETHODIMP LockThreadOutput() override;
    STDMETHODIMP UnlockThreadOutput() override;
    STDMETHODIMP LoggerAdvise(_IKyLoggerEvents* listener, ULONG* cookie) override;
    STDMETHODIMP LoggerUnadvise(ULONG cookie) override;
    STDMETHODIMP RegisterChannel(ULONG channelId, BSTR name, ULONG eventsMask) override;
    STDMETHODIMP RevokeChannel(ULONG channelId) override;
    STDMETHODIMP MaskChannelEvents(ULONG channelId, ULONG eventsMask) override;
    STDMETHODIMP EnumChannels(IEnumLoggerChannel** ppEnum) override;
    STDMETHODIMP Log(ULONG channelId, KYEVENTTYPES eventType, VARIANT* message, VARIANT* hint) override;

private:
    struct Channel {
        ULONG mask;
        com::Bstr name;
    };

    struct Listener {
        ULONG cookie;
        com::ComPtr<_IKyLoggerEvents> sink;
    };

    // A message held back on a locked thread, with its own copies of the
    // message and the hint (the hint stays VT_EMPTY when none was given).
    struct Pending {
        Pending(ULONG channelId, KYEVENTTYPES eventType) : channel(channelId), type(eventType) {}

        ULONG channel;
        KYEVENTTYPES type;
        com::Variant message;
        com::Variant hint;
    };
    using Queue = std::vector<Pending>;

    HRESULT Enqueue(DWORD thread, Queue& queue, ULONG channelId, KYEVENTTYPES eventType, const VARIANT* message,
                    const VARIANT* hint);
    HRESULT Flush(DWORD thread, Queue& pending);
    HRESULT Deliver(ULONG channelId, KYEVENTTYPES eventType, VARIANT& message, VARIANT* hint, DWORD thread);
    ULONG NewCookie() const;

    com::CriticalSection m_lock;
    std::unordered_map<ULONG, Channel> m_channels;
    std::vector<Listener> m_listeners;  // in advise order
    std::unordered_map<DWORD, Queue> m_threads;
    mutable ULONG m_lastCookie = 0;
};

}  // namespace ky
