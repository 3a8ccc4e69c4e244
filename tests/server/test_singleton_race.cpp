// Threads that race for a singleton's first creation all get one object.
// A program of its own, so that every request below is a first one.
#include <wrl/client.h>

#include <atomic>
#include <thread>
#include <vector>

#include "classtable.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

TEST(Singleton, ConcurrentFirstRequestsGetOneObject) {
    int raced = 0;
    for (const auto& c : kExpectedClasses) {
        // Free-threaded singletons are created on the callers' own threads.
        if (!c.singleton || std::wstring(c.threadingModel) != L"Free" || !Served(*c.clsid)) continue;
        SCOPED_TRACE(Narrow(c.progId));
        ++raced;
        constexpr int kThreads = 8;
        std::vector<IUnknown*> got(kThreads, nullptr);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
                ++ready;
                while (ready < kThreads) std::this_thread::yield();
                ::CoCreateInstance(*c.clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                   reinterpret_cast<void**>(&got[i]));
                ::CoUninitialize();
            });
        }
        for (auto& t : threads) t.join();
        ASSERT_NE(nullptr, got[0]);
        for (IUnknown* p : got) {
            EXPECT_EQ(got[0], p);
            if (p) p->Release();
        }
    }
    EXPECT_GE(raced, 1);
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
