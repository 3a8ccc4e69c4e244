// Many threads logging at once, some of them locked, while listeners and
// channels come and go: nothing is lost, nothing interleaves, nothing hangs.
#include <atomic>
#include <map>
#include <thread>

#include "loggertest.h"

namespace ky::test {
namespace {

using Stress = LoggerTest;

constexpr int kThreads = 8;
constexpr int kMessages = 1005;  // per thread; not a multiple of 16, so unlocking flushes a rest
constexpr ULONG kChannels[] = {601, 602, 603};

TEST_F(Stress, EightThreadsLogToTwoListenersWithoutLosingOrMixingMessages) {
    for (ULONG id : kChannels) Channel(id, L"Stress", LET_TRACE | LET_MESSAGE);
    ComPtr<Listener> listeners[2] = {AdvisedListener(), AdvisedListener()};
    std::atomic<int> inside{0}, overlaps{0};
    for (auto& listener : listeners) {
        listener->onMessage = [&](const Heard&) {
            if (++inside > 1) ++overlaps;
            std::this_thread::yield();
            --inside;
        };
    }

    IKyLogger* raw = logger.Get();  // free-threaded in use
    std::atomic<bool> done{false};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            // Half of the threads hold their output back.
            bool locked = t % 2 == 0;
            if (locked) {
                EXPECT_HR(S_OK, raw->LockThreadOutput());
            }
            for (int i = 0; i < kMessages; ++i) {
                VARIANT text;
                V_VT(&text) = VT_BSTR;
                V_BSTR(&text) = ::SysAllocString((std::to_wstring(t) + L":" + std::to_wstring(i)).c_str());
                EXPECT_HR(S_OK, raw->Log(kChannels[i % 3], LET_TRACE, &text, nullptr));
                if (raw->Log(kChannels[i % 3], LET_ERROR, &text, nullptr) == S_FALSE) ++refused;
                ::VariantClear(&text);
            }
            if (locked) {
                EXPECT_HR(S_OK, raw->UnlockThreadOutput());
            }
            ::CoUninitialize();
        });
    }
    // Meanwhile a listener and a channel come and go.
    std::thread churn([&] {
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        ComPtr<Listener> passing = NewListener();
        BSTR name = ::SysAllocString(L"Passing");
        while (!done) {
            ULONG cookie = 0;
            EXPECT_HR(S_OK, raw->LoggerAdvise(passing.Get(), &cookie));
            EXPECT_HR(S_OK, raw->RegisterChannel(610, name, LET_TRACE));
            std::this_thread::yield();
            EXPECT_HR(S_OK, raw->RevokeChannel(610));
            EXPECT_HR(S_OK, raw->LoggerUnadvise(cookie));
        }
        ::SysFreeString(name);
        ::CoUninitialize();
    });
    for (auto& thread : threads) thread.join();
    done = true;
    churn.join();

    EXPECT_EQ(0, overlaps.load());
    EXPECT_EQ(kThreads * kMessages, refused.load());
    for (auto& listener : listeners) {
        auto heard = listener->HeardSoFar();
        ASSERT_EQ(size_t(kThreads * kMessages), heard.size());
        // Each thread's messages arrive in the order it logged them, named
        // after the thread that logged them.
        std::map<int, int> next;
        std::map<int, DWORD> threadOf;
        for (const Heard& h : heard) {
            size_t colon = h.text.find(L':');
            int t = std::stoi(h.text.substr(0, colon));
            int i = std::stoi(h.text.substr(colon + 1));
            EXPECT_EQ(next[t], i);
            next[t] = i + 1;
            EXPECT_EQ(kChannels[i % 3], h.channel);
            if (!threadOf.count(t)) threadOf[t] = h.thread;
            EXPECT_EQ(threadOf[t], h.thread);
        }
    }
}

}  // namespace
}  // namespace ky::test
