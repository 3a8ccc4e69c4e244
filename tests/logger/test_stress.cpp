// Many threads logging at once, half of them locked, while a listener and a
// channel come and go: nothing is lost, nothing interleaves, nothing hangs.
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
    for (ULONG id : kChannels) Channel(id, LET_TRACE);
    ComPtr<Listener> listeners[2] = {NewListener(), NewListener()};
    std::atomic<int> inside{0}, overlaps{0}, refused{0};
    for (auto& listener : listeners) {
        listener->onMessage = [&](const Heard&) {
            if (++inside > 1) ++overlaps;
            std::this_thread::yield();
            --inside;
        };
    }
    IKyLogger* raw = logger.Get();  // free-threaded in use
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            bool locked = t % 2 == 0;
            if (locked) raw->LockThreadOutput();
            for (int i = 0; i < kMessages; ++i) {
                std::wstring text = std::to_wstring(t) + L":" + std::to_wstring(i);
                EXPECT_HR(S_OK, LogText(raw, kChannels[i % 3], LET_TRACE, text));
                if (LogText(raw, kChannels[i % 3], LET_ERROR, text) == S_FALSE) ++refused;
            }
            EXPECT_HR(locked ? S_OK : S_FALSE, raw->UnlockThreadOutput());
            ::CoUninitialize();
        });
    }
    std::atomic<bool> done{false};
    std::thread churn([&] {
        auto passing = NewListener(false);
        while (!done) {
            ULONG cookie = 0;
            EXPECT_HR(S_OK, raw->LoggerAdvise(passing.Get(), &cookie));
            EXPECT_HR(S_OK, raw->RegisterChannel(610, com::Bstr(L"Passing"), LET_TRACE));
            EXPECT_HR(S_OK, raw->RevokeChannel(610));
            EXPECT_HR(S_OK, raw->LoggerUnadvise(cookie));
        }
    });
    for (auto& thread : threads) thread.join();
    done = true;
    churn.join();

    EXPECT_EQ(0, overlaps.load());
    EXPECT_EQ(kThreads * kMessages, refused.load());
    for (auto& listener : listeners) {
        auto heard = listener->All();
        ASSERT_EQ(size_t(kThreads * kMessages), heard.size());
        // Each thread's messages arrive in the order it logged them, under
        // its own thread identifier.
        std::map<int, int> next;
        std::map<int, DWORD> threadOf;
        for (const Heard& h : heard) {
            size_t colon = h.text.find(L':');
            int t = std::stoi(h.text.substr(0, colon)), i = std::stoi(h.text.substr(colon + 1));
            EXPECT_EQ(next[t]++, i);
            EXPECT_EQ(kChannels[i % 3], h.channel);
            EXPECT_EQ(threadOf.emplace(t, h.thread).first->second, h.thread);
        }
    }
}

}  // namespace
}  // namespace ky::test
