#include "logger/logger.h"

#include <algorithm>

#include "com/enumerator.h"
#include "com/guard.h"

namespace com {

// A channel record handed out by the channel enumerator carries its own copy
// of the name.
template <>
struct CopyTraits<KyLoggerChannel> {
    static HRESULT Copy(KyLoggerChannel* target, const KyLoggerChannel& source) {
        *target = source;
        HRESULT hr = Bstr::CopyOf(source.bstrName, &target->bstrName);
        if (FAILED(hr)) *target = KyLoggerChannel{};
        return hr;
    }
    static void Clear(KyLoggerChannel* target) {
        ::SysFreeString(target->bstrName);
        *target = KyLoggerChannel{};
    }
    static void Release(KyLoggerChannel& item) { Clear(&item); }
};

}  // namespace com

namespace ky {

namespace {

using ChannelEnumerator =
    com::SnapshotEnumerator<IEnumLoggerChannel, KyLoggerChannel, com::CopyTraits<KyLoggerChannel>,
                            com::ZeroCount::Refused>;

// Listeners as they were when a delivery began. Each is held for the length
// of the delivery, so a listener may unadvise itself (or another) from its
// own OnMessage. Small lists stay on the stack.
class ListenerSnapshot {
public:
    template <class Listeners>
    explicit ListenerSnapshot(const Listeners& listeners) : m_count(listeners.size()) {
        if (m_count > kInline) {
            m_heap.resize(m_count);
            m_sinks = m_heap.data();
        }
        for (size_t i = 0; i < m_count; ++i) {
            m_sinks[i] = listeners[i].sink.Get();
            m_sinks[i]->AddRef();
        }
    }
    ListenerSnapshot(const ListenerSnapshot&) = delete;
    ListenerSnapshot& operator=(const ListenerSnapshot&) = delete;
    ~ListenerSnapshot() {
        for (size_t i = 0; i < m_count; ++i) m_sinks[i]->Release();
    }
    _IKyLoggerEvents* const* begin() const { return m_sinks; }
    _IKyLoggerEvents* const* end() const { return m_sinks + m_count; }

private:
    static constexpr size_t kInline = 8;
    size_t m_count;
    _IKyLoggerEvents* m_inline[kInline];
    std::vector<_IKyLoggerEvents*> m_heap;
    _IKyLoggerEvents** m_sinks = m_inline;
};

}  // namespace

STDMETHODIMP CKyLogger::LockThreadOutput() {
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        return m_threads.emplace(::GetCurrentThreadId(), Queue()).second ? S_OK : S_FALSE;
    });
}

STDMETHODIMP CKyLogger::UnlockThreadOutput() {
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        DWORD thread = ::GetCurrentThreadId();
        auto found = m_threads.find(thread);
        if (found == m_threads.end()) return S_FALSE;
        // The thread is unlocked before its messages go out: what a listener
        // logs from this thread meanwhile is delivered at once rather than
        // queued to a queue that is about to go.
        Queue pending = std::move(found->second);
        m_threads.erase(found);
        return Flush(thread, pending);
    });
}

STDMETHODIMP CKyLogger::LoggerAdvise(_IKyLoggerEvents* listener, ULONG* cookie) {
    if (!cookie || !listener) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        for (const Listener& entry : m_listeners) {
            if (entry.sink.Get() == listener) {
                *cookie = entry.cookie;
                return CO_E_OBJISREG;
            }
        }
        ULONG newCookie = NewCookie();
        m_listeners.push_back(Listener{newCookie, listener});
        *cookie = newCookie;
        return S_OK;
    });
}

STDMETHODIMP CKyLogger::LoggerUnadvise(ULONG cookie) {
    com::ComPtr<_IKyLoggerEvents> removed;
    {
        com::Lock lock(m_lock);
        auto found = std::find_if(m_listeners.begin(), m_listeners.end(),
                                  [cookie](const Listener& entry) { return entry.cookie == cookie; });
        if (found == m_listeners.end()) return E_INVALIDARG;
        removed = std::move(found->sink);
        m_listeners.erase(found);
    }
    return S_OK;  // the listener is released outside the lock
}

STDMETHODIMP CKyLogger::RegisterChannel(ULONG channelId, BSTR name, ULONG eventsMask) {
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        if (m_channels.count(channelId)) return CO_E_OBJISREG;
        if (::SysStringLen(name) == 0) return E_INVALIDARG;
        com::Bstr copy;
        HRESULT hr = copy.Assign(name);
        if (FAILED(hr)) return hr;
        m_channels.emplace(channelId, Channel{eventsMask, std::move(copy)});
        return S_OK;
    });
}

STDMETHODIMP CKyLogger::RevokeChannel(ULONG channelId) {
    com::Lock lock(m_lock);
    return m_channels.erase(channelId) ? S_OK : E_INVALIDARG;
}

STDMETHODIMP CKyLogger::MaskChannelEvents(ULONG channelId, ULONG eventsMask) {
    com::Lock lock(m_lock);
    auto found = m_channels.find(channelId);
    if (found == m_channels.end()) return CO_E_OBJNOTREG;
    found->second.mask = eventsMask;
    return S_OK;
}

STDMETHODIMP CKyLogger::EnumChannels(IEnumLoggerChannel** ppEnum) {
    if (!ppEnum) return E_INVALIDARG;
    *ppEnum = nullptr;
    std::vector<KyLoggerChannel> items;
    HRESULT hr = com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        items.reserve(m_channels.size());
        for (const auto& channel : m_channels) {
            KyLoggerChannel item{channel.first, channel.second.mask, nullptr};
            if (FAILED(com::Bstr::CopyOf(channel.second.name, &item.bstrName))) return E_OUTOFMEMORY;
            items.push_back(item);
        }
        return S_OK;
    });
    if (FAILED(hr)) {
        for (KyLoggerChannel& item : items) ::SysFreeString(item.bstrName);
        return E_OUTOFMEMORY;
    }
    return ChannelEnumerator::Create(std::move(items), nullptr, IID_IEnumLoggerChannel,
                                     reinterpret_cast<void**>(ppEnum));
}

STDMETHODIMP CKyLogger::Log(ULONG channelId, KYEVENTTYPES eventType, VARIANT* message, VARIANT* hint) {
    if (!message || eventType == LET_NOTHING || eventType == LET_EVERYTHING) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        auto channel = m_channels.find(channelId);
        if (channel == m_channels.end()) return CO_E_OBJNOTREG;
        if ((channel->second.mask & static_cast<ULONG>(eventType)) == 0) return S_FALSE;
        DWORD thread = ::GetCurrentThreadId();
        if (!m_threads.empty()) {
            auto queue = m_threads.find(thread);
            if (queue != m_threads.end()) return Enqueue(thread, queue->second, channelId, eventType, message, hint);
        }
        com::Variant text;
        HRESULT hr = text.CopyFrom(message);
        if (FAILED(hr)) return hr;
        return Deliver(channelId, eventType, text, hint, thread);
    });
}

HRESULT CKyLogger::Enqueue(DWORD thread, Queue& queue, ULONG channelId, KYEVENTTYPES eventType,
                           const VARIANT* message, const VARIANT* hint) {
    if (queue.size() == queue.capacity()) queue.reserve(queue.capacity() + kQueueBlock);
    queue.emplace_back(channelId, eventType);
    Pending& entry = queue.back();
    HRESULT hr = entry.message.CopyFrom(message);
    if (SUCCEEDED(hr) && hint) hr = entry.hint.CopyFrom(hint);
    if (FAILED(hr)) {
        queue.pop_back();
        return hr;
    }
    if (queue.size() < kFlushThreshold) return S_OK;
    // The thread stays locked; what its listeners log during the flush
    // starts the next queue.
    Queue pending;
    pending.swap(queue);
    return Flush(thread, pending);
}

HRESULT CKyLogger::Flush(DWORD thread, Queue& pending) {
    HRESULT result = S_FALSE;
    for (Pending& entry : pending) {
        // A queued hint that is empty reaches listeners as no hint at all.
        VARIANT* hint = V_VT(&entry.hint) != VT_EMPTY ? &entry.hint : nullptr;
        result = Deliver(entry.channel, entry.type, entry.message, hint, thread);
    }
    return result;
}

// Converts `message` (a copy owned by the caller) to text in place and hands
// it to every listener. Runs under the logger's lock, so that messages from
// different threads never interleave.
HRESULT CKyLogger::Deliver(ULONG channelId, KYEVENTTYPES eventType, VARIANT& message, VARIANT* hint,
                           DWORD thread) {
    HRESULT hr = ::VariantChangeType(&message, &message, 0, VT_BSTR);
    if (FAILED(hr)) return hr;
    ListenerSnapshot listeners(m_listeners);
    for (_IKyLoggerEvents* listener : listeners)
        listener->OnMessage(channelId, eventType, V_BSTR(&message), hint, thread);
    return S_OK;
}

// Cookies are serial numbers, never 0 and never one that is in use.
ULONG CKyLogger::NewCookie() const {
    for (;;) {
        ULONG cookie = ++m_lastCookie;
        if (cookie == 0) continue;
        bool used = std::any_of(m_listeners.begin(), m_listeners.end(),
                                [cookie](const Listener& entry) { return entry.cookie == cookie; });
        if (!used) return cookie;
    }
}

}  // namespace ky
