// The system timer as a client uses it. Sinks run on the service's thread; timing is checked by counts.
#include <wrl/client.h>

#include <atomic>

#include "kytest.h"

namespace ky::test {
namespace {

Microsoft::WRL::ComPtr<ISystemTimer> Timer() {
    Microsoft::WRL::ComPtr<ISystemTimer> timer;
    return ::CoCreateInstance(CLSID_SystemTimer, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&timer)), timer;
}

// Polls until `done` holds; false when ten seconds pass first.
template <class Done> bool Eventually(Done done) {
    for (const DWORD start = ::GetTickCount(); !done(); ::Sleep(10))
        if (::GetTickCount() - start > 10000) return false;
    return true;
}

// A free-threaded sink owned by the test. It answers E_FAIL, which the timer ignores. At its
// call number `killAt` it kills its timer and sets a one-shot one with the value 99 instead.
class Sink : public ISystemTimerSink {
public:
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override { return *ppv = this, AddRef(), S_OK; }  // only a sink
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&refs); }
    STDMETHODIMP_(ULONG) Release() override { return ::InterlockedDecrement(&refs); }
    STDMETHODIMP OnTimer(UINT id, ULONG value) override {
        if (calls + 1 == killAt) killed = Timer()->KillTimer(id), set = Timer()->SetTimer(20, 1, 99, this, nullptr);
        return user = value, ++calls, E_FAIL;
    }
    // Quiet: the calls came and no more in several intervals. Released: the timer let go of the sink.
    bool Quiet(int count) { return Eventually([&] { return calls >= count; }) && (::Sleep(400), true); }
    bool Released() { return Eventually([&] { return refs == 1; }); }

    volatile LONG refs = 1;
    int killAt = 0;
    std::atomic<int> calls{0};
    std::atomic<ULONG> user{0};
    std::atomic<HRESULT> killed{S_OK}, set{S_OK};
};

TEST(SystemTimer, ATimerFiresItsCountWithItsValueKeepingTheModuleAndIsGone) {
    // The count (1: a one-shot timer of the service; 0: until killed), killAt, the calls, the last value.
    for (auto [count, killAt, calls, lastUser] :
         {std::tuple<ULONG, int, int, ULONG>{3, 0, 3, 3}, {1, 0, 1, 1}, {0, 3, 4, 99}}) {
        Sink sink;
        sink.killAt = killAt;
        UINT id = 0;
        ASSERT_HR(S_OK, Timer()->SetTimer(20, count, count, &sink, &id));
        EXPECT_HR(S_FALSE, DllCanUnloadNow());  // no timer object is left, but the service calls in
        ASSERT_TRUE(sink.Quiet(calls));
        EXPECT_EQ(calls, sink.calls.load());
        EXPECT_EQ(lastUser, sink.user.load());
        EXPECT_EQ(Hex(S_OK) + Hex(S_OK), Hex(sink.killed) + Hex(sink.set));
        EXPECT_HR(S_FALSE, Timer()->KillTimer(id));
        EXPECT_TRUE(sink.Released());
    }
}

TEST(SystemTimer, RefusedRequestsCreateNoTimer) {
    Sink sink;
    auto timer = Timer();
    EXPECT_HR(E_POINTER, timer->SetTimer(20, 0, 0, nullptr, nullptr));
    EXPECT_HR(E_INVALIDARG, timer->KillTimer(0));
    // A refused delay gives back the caller's last error: positive ones as Win32 codes, others as they are.
    for (auto [lastError, expected] : {std::pair<DWORD, DWORD>{ERROR_ACCESS_DENIED, 0x80070005}, {0x12345, 0x80072345},
                                       {0x8007000E, 0x8007000E}, {0, S_OK}}) {
        ::SetLastError(lastError);
        EXPECT_HR(static_cast<HRESULT>(expected), timer->SetTimer(0xFFFFFFFFu, 1, 0, &sink, nullptr));
    }
    EXPECT_TRUE(sink.Released());  // no timer, even for S_OK
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
