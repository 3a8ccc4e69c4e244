// The system timer as a client uses it: counted, one-shot and unlimited
// timers, sinks that set or kill timers themselves, and the results of
// KillTimer. Sinks run on the timer service's thread, so they are plain
// free-threaded objects. Timing is checked by counts and order only.
#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr DWORD kQuietMs = 400;  // several intervals in which nothing more may happen

// Polls until `done` holds; false when ten seconds pass first.
bool Eventually(const std::function<bool()>& done) {
    for (const DWORD start = ::GetTickCount(); !done(); ::Sleep(10))
        if (::GetTickCount() - start > 10000) return false;
    return true;
}

struct Call {
    UINT id;
    ULONG user;
};

// A free-threaded sink that records its calls. It answers E_FAIL, which the
// timer ignores: every test shows that the timers go on regardless.
class Sink : public ISystemTimerSink {
public:
    static ComPtr<Sink> Make() { return ComPtr<Sink>(new Sink); }  // (ComPtr adds the first reference)

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        const bool known = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ISystemTimerSink);
        *ppv = known ? static_cast<ISystemTimerSink*>(this) : nullptr;
        if (known) AddRef();
        return known ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override {
        LONG refs = ::InterlockedDecrement(&m_refs);
        if (refs == 0) delete this;
        return refs;
    }
    STDMETHODIMP OnTimer(UINT id, ULONG user) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back({id, user});
        }
        if (onTimer) onTimer(id, user);
        return E_FAIL;
    }

    std::vector<Call> Calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    bool WaitFor(size_t count) {
        return Eventually([&] { return Calls().size() >= count; });
    }
    // Waits until the timer table and any callback in flight let go of the sink.
    bool WaitUntilOnlyOursRemain() {
        return Eventually([&] { return m_refs == 1; });
    }

    std::function<void(UINT, ULONG)> onTimer;

private:
    Sink() = default;
    virtual ~Sink() = default;

    volatile LONG m_refs = 0;
    std::mutex m_mutex;
    std::vector<Call> m_calls;
};

ComPtr<ISystemTimer> Timer() {
    ComPtr<ISystemTimer> timer;
    EXPECT_HR(S_OK, ::CoCreateInstance(CLSID_SystemTimer, nullptr, CLSCTX_INPROC_SERVER, IID_ISystemTimer, &timer));
    return timer;
}

TEST(SystemTimer, ACountedTimerFiresExactlyItsCountAndThenIsGone) {
    for (ULONG count : {3ul, 1ul}) {  // 1 is a one-shot timer of the service
        auto sink = Sink::Make();
        UINT id = 0;
        ASSERT_HR(S_OK, Timer()->SetTimer(50, count, 0xABC0 + count, sink.Get(), &id));
        ASSERT_NE(0u, id);
        ASSERT_TRUE(sink->WaitFor(count));
        ::Sleep(kQuietMs);
        auto calls = sink->Calls();
        ASSERT_EQ(count, calls.size());
        for (const Call& call : calls) {
            EXPECT_EQ(id, call.id);
            EXPECT_EQ(0xABC0 + count, call.user);
        }
        EXPECT_HR(S_FALSE, Timer()->KillTimer(id));
        EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
    }
}

TEST(SystemTimer, ACountOfZeroFiresUntilKilledAndKeepsTheModuleMeanwhile) {
    auto sink = Sink::Make();
    UINT id = 0;
    ASSERT_HR(S_OK, Timer()->SetTimer(20, 0, 1, sink.Get(), &id));
    // No reference to the timer object is left, but the service still calls into the module.
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
    ASSERT_TRUE(sink->WaitFor(5));
    EXPECT_HR(S_OK, Timer()->KillTimer(id));
    EXPECT_HR(S_FALSE, Timer()->KillTimer(id));
    EXPECT_HR(S_OK, DllCanUnloadNow());
    size_t atKill = sink->Calls().size();
    ::Sleep(kQuietMs);
    EXPECT_LE(sink->Calls().size(), atKill + 1);  // at most one expiry that was already under way
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, ASinkMayKillItsOwnTimerAndSetAnother) {
    auto sink = Sink::Make();
    ComPtr<ISystemTimer> timer = Timer();
    std::atomic<HRESULT> killed{E_PENDING}, set{E_PENDING};
    sink->onTimer = [&](UINT id, ULONG user) {
        if (user != 1) return;
        killed = timer->KillTimer(id);
        set = timer->SetTimer(20, 1, 2, sink.Get(), nullptr);
    };
    ASSERT_HR(S_OK, timer->SetTimer(20, 0, 1, sink.Get(), nullptr));
    ASSERT_TRUE(sink->WaitFor(2));
    ::Sleep(kQuietMs);
    auto calls = sink->Calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(1u, calls[0].user);
    EXPECT_EQ(2u, calls[1].user);
    EXPECT_HR(S_OK, killed.load());
    EXPECT_HR(S_OK, set.load());
    sink->onTimer = nullptr;
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, BadArgumentsAndRefusedDelaysCreateNoTimer) {
    auto sink = Sink::Make();
    ComPtr<ISystemTimer> timer = Timer();
    UINT id = 0xDEAD;
    EXPECT_HR(E_POINTER, timer->SetTimer(20, 0, 0, nullptr, &id));
    EXPECT_HR(E_INVALIDARG, timer->KillTimer(0));
    EXPECT_HR(S_FALSE, timer->KillTimer(0x7FFFFFF0));  // no such timer

    // The service refuses such a delay without a last error of its own, so
    // the caller's comes back: positive ones as Win32 codes, others as they are.
    for (auto [lastError, expected] : {std::pair<DWORD, DWORD>{ERROR_ACCESS_DENIED, 0x80070005}, {0x12345, 0x80072345},
                                       {0x8007000E, 0x8007000E}, {0, S_OK}}) {
        ::SetLastError(lastError);
        EXPECT_HR(static_cast<HRESULT>(expected), timer->SetTimer(0xFFFFFFFFu, 1, 0, sink.Get(), &id));
    }
    EXPECT_EQ(0xDEADu, id);  // no timer, even for S_OK
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
