// The system timer as a client uses it: counted, one-shot and unlimited
// timers, sinks that set or kill timers themselves, and the results of
// KillTimer. Sinks run on the timer service's thread, so they are plain
// free-threaded objects. Timing is checked by counts and order only, with
// generous waits.
#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr DWORD kPatienceMs = 10000;  // how long an expected call may take at most
constexpr DWORD kQuietMs = 400;       // several intervals in which nothing more may happen

// Polls until `done` holds; false when the patience runs out first.
bool Eventually(const std::function<bool()>& done) {
    const DWORD start = ::GetTickCount();
    while (!done()) {
        if (::GetTickCount() - start > kPatienceMs) return false;
        ::Sleep(10);
    }
    return true;
}

struct Call {
    UINT id;
    ULONG user;
};

class Sink : public ISystemTimerSink {
public:
    // (MinGW's ComPtr::Attach adds a reference, so the count starts at 0.)
    static ComPtr<Sink> Make() { return ComPtr<Sink>(new Sink); }

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
        return result;
    }

    std::vector<Call> Calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    size_t Count() { return Calls().size(); }
    // Waits until at least `count` calls have arrived.
    bool WaitFor(size_t count) {
        return Eventually([&] { return Count() >= count; });
    }
    // Waits until the timer table and any callback in flight let go of the sink.
    bool WaitUntilOnlyOursRemain() {
        return Eventually([&] { return m_refs == 1; });
    }
    LONG Refs() const { return m_refs; }

    std::function<void(UINT, ULONG)> onTimer;
    HRESULT result = S_OK;

private:
    Sink() = default;
    virtual ~Sink() = default;

    volatile LONG m_refs = 0;
    std::mutex m_mutex;
    std::vector<Call> m_calls;
};

ComPtr<ISystemTimer> Timer() {
    ComPtr<ISystemTimer> timer;
    EXPECT_HR(S_OK,
              ::CoCreateInstance(CLSID_SystemTimer, nullptr, CLSCTX_INPROC_SERVER, IID_ISystemTimer, &timer));
    return timer;
}

TEST(SystemTimer, IsOneObjectForTheProcessAndRefusesAggregation) {
    ComPtr<ISystemTimer> a = Timer(), b = Timer();
    EXPECT_EQ(a.Get(), b.Get());
    IUnknown* inner = reinterpret_cast<IUnknown*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, ::CoCreateInstance(CLSID_SystemTimer, a.Get(), CLSCTX_INPROC_SERVER,
                                                         IID_IUnknown, reinterpret_cast<void**>(&inner)));
    EXPECT_EQ(nullptr, inner);
}

// Sets a timer of `count` expiries and checks that exactly those arrive,
// all for that timer and value, and that the timer is gone afterwards. What
// the sink answers does not matter.
void ExpectExactly(ULONG count, ULONG user, HRESULT sinkResult) {
    auto sink = Sink::Make();
    sink->result = sinkResult;
    UINT id = 0;
    ASSERT_HR(S_OK, Timer()->SetTimer(50, count, user, sink.Get(), &id));
    ASSERT_NE(0u, id);
    ASSERT_TRUE(sink->WaitFor(count));
    ::Sleep(kQuietMs);
    auto calls = sink->Calls();
    ASSERT_EQ(count, calls.size());
    for (const Call& call : calls) {
        EXPECT_EQ(id, call.id);
        EXPECT_EQ(user, call.user);
    }
    EXPECT_HR(S_FALSE, Timer()->KillTimer(id));
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, ACountedTimerFiresExactlyItsCountAndThenIsGone) {
    ExpectExactly(3, 0xABCD, S_OK);
    ExpectExactly(3, 0xABCE, E_FAIL);
}

TEST(SystemTimer, ACountOfOneFiresOnce) { ExpectExactly(1, 7, S_OK); }

TEST(SystemTimer, ACountOfZeroFiresUntilKilled) {
    auto sink = Sink::Make();
    UINT id = 0;
    ASSERT_HR(S_OK, Timer()->SetTimer(20, 0, 1, sink.Get(), &id));
    EXPECT_GE(sink->Refs(), 2);  // the timer table holds the sink
    ASSERT_TRUE(sink->WaitFor(5));
    EXPECT_HR(S_OK, Timer()->KillTimer(id));
    EXPECT_HR(S_FALSE, Timer()->KillTimer(id));
    size_t atKill = sink->Count();
    ::Sleep(kQuietMs);
    EXPECT_LE(sink->Count(), atKill + 1);  // at most one expiry that was already under way
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, ASinkMayKillItsOwnTimer) {
    auto sink = Sink::Make();
    ComPtr<ISystemTimer> timer = Timer();
    std::atomic<HRESULT> killed{E_PENDING};
    sink->onTimer = [&](UINT id, ULONG) { killed = timer->KillTimer(id); };
    UINT id = 0;
    ASSERT_HR(S_OK, timer->SetTimer(20, 0, 0, sink.Get(), &id));
    ASSERT_TRUE(sink->WaitFor(1));
    ::Sleep(kQuietMs);
    EXPECT_EQ(1u, sink->Count());
    EXPECT_HR(S_OK, killed.load());
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, ASinkMaySetAnotherTimer) {
    auto sink = Sink::Make();
    ComPtr<ISystemTimer> timer = Timer();
    std::atomic<HRESULT> set{E_PENDING};
    sink->onTimer = [&](UINT, ULONG user) {
        if (user == 1) set = timer->SetTimer(20, 1, 2, sink.Get(), nullptr);
    };
    ASSERT_HR(S_OK, timer->SetTimer(20, 1, 1, sink.Get(), nullptr));
    ASSERT_TRUE(sink->WaitFor(2));
    ::Sleep(kQuietMs);
    auto calls = sink->Calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(1u, calls[0].user);
    EXPECT_EQ(2u, calls[1].user);
    EXPECT_NE(0u, calls[0].id);  // reported even though the caller did not ask for it
    EXPECT_HR(S_OK, set.load());
    sink->onTimer = nullptr;
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, TimersFireInTheOrderOfTheirIntervals) {
    auto sink = Sink::Make();
    ComPtr<ISystemTimer> timer = Timer();
    ASSERT_HR(S_OK, timer->SetTimer(1200, 1, 3, sink.Get(), nullptr));
    ASSERT_HR(S_OK, timer->SetTimer(100, 1, 1, sink.Get(), nullptr));
    ASSERT_HR(S_OK, timer->SetTimer(600, 1, 2, sink.Get(), nullptr));
    ASSERT_TRUE(sink->WaitFor(3));
    auto calls = sink->Calls();
    ASSERT_EQ(3u, calls.size());
    for (ULONG i = 0; i < 3; ++i) EXPECT_EQ(i + 1, calls[i].user);
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, BadArgumentsCreateNoTimer) {
    auto sink = Sink::Make();
    UINT id = 0xDEAD;
    EXPECT_HR(E_POINTER, Timer()->SetTimer(20, 0, 0, nullptr, &id));
    EXPECT_EQ(0xDEADu, id);
    EXPECT_HR(E_INVALIDARG, Timer()->KillTimer(0));
    EXPECT_HR(S_FALSE, Timer()->KillTimer(0x7FFFFFF0));
    // (A timer created here would keep the module locked after the test.)
}

TEST(SystemTimer, AFailedSetTimerReportsTheLastErrorAsItStands) {
    // The timer service refuses such a delay without setting a last error of its own.
    auto sink = Sink::Make();
    ComPtr<ISystemTimer> timer = Timer();
    timer->KillTimer(0x7FFFFFF0);  // the first use of the table may itself touch the last error
    const struct {
        DWORD lastError;
        HRESULT expected;
    } cases[] = {
        {ERROR_ACCESS_DENIED, static_cast<HRESULT>(0x80070005ul)},
        {0x00012345, static_cast<HRESULT>(0x80072345ul)},
        {0x8007000E, static_cast<HRESULT>(0x8007000Eul)},  // negative: returned as it is
        {0, S_OK},                                         // no timer, and still S_OK
    };
    for (const auto& c : cases) {
        UINT id = 0xDEAD;
        ::SetLastError(c.lastError);
        EXPECT_HR(c.expected, timer->SetTimer(0xFFFFFFFFu, 1, 0, sink.Get(), &id));
        EXPECT_EQ(0xDEADu, id);
    }
    EXPECT_EQ(1, sink->Refs());
}

TEST(SystemTimer, ALiveTimerKeepsTheModuleLoaded) {
    auto sink = Sink::Make();
    UINT id = 0;
    ASSERT_HR(S_OK, Timer()->SetTimer(50, 0, 0, sink.Get(), &id));
    // No reference to the timer object is left, but the service still calls into the module.
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
    EXPECT_HR(S_OK, Timer()->KillTimer(id));
    EXPECT_HR(S_OK, DllCanUnloadNow());
    EXPECT_TRUE(sink->WaitUntilOnlyOursRemain());
}

TEST(SystemTimer, ManyThreadsSetAndKillTimersTogether) {
    // Each thread keeps at most two timers alive: Wine's timer service
    // serves no more than 16 at a time.
    constexpr int kThreads = 4, kRounds = 25;
    auto killed = Sink::Make();
    std::vector<ComPtr<Sink>> counted;
    for (int t = 0; t < kThreads; ++t) counted.push_back(Sink::Make());
    std::atomic<int> unexpected{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            ComPtr<ISystemTimer> timer = Timer();
            Sink* mine = counted[t].Get();
            for (int round = 1; round <= kRounds; ++round) {
                if (timer->SetTimer(5, 2, t, mine, nullptr) != S_OK) ++unexpected;
                UINT id = 0;
                if (timer->SetTimer(1, 0, 0, killed.Get(), &id) != S_OK) ++unexpected;
                if (timer->KillTimer(id) != S_OK) ++unexpected;
                if (!mine->WaitFor(2 * round)) ++unexpected;
            }
            ::CoUninitialize();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, unexpected.load());
    ::Sleep(kQuietMs);
    for (int t = 0; t < kThreads; ++t) {
        auto calls = counted[t]->Calls();
        EXPECT_EQ(static_cast<size_t>(2 * kRounds), calls.size());
        for (const Call& call : calls) EXPECT_EQ(static_cast<ULONG>(t), call.user);
        EXPECT_TRUE(counted[t]->WaitUntilOnlyOursRemain());
    }
    EXPECT_TRUE(killed->WaitUntilOnlyOursRemain());
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
