// Many threads logging at once on several channels, half of them locked:
// nothing is lost, nothing interleaves, nothing hangs.
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
    std::atomic<int> inside{0}, overlaps{0};
    for (auto& listener : listeners) {
        listener->onMessage = [&](const Heard&) {
            if (++inside > 1) ++overlaps;
            std::this_thread::yield();
            --inside;
        };
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            bool locked = t % 2 == 0;
            if (locked) logger->LockThreadOutput();
            for (int i = 0; i < kMessages; ++i) {
                std::wstring text = std::to_wstring(t) + L":" + std::to_wstring(i);
                EXPECT_HR(S_OK, Log(kChannels[i % 3], LET_TRACE, text));
                EXPECT_HR(S_FALSE, Log(kChannels[i % 3], LET_ERROR, text));
            }
            EXPECT_HR(locked ? S_OK : S_FALSE, logger->UnlockThreadOutput());
            ::CoUninitialize();
        });
    }
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(0, overlaps.load());
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
