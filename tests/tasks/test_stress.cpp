// Many threads adding, changing and removing tasks while listeners come and
// go: every event reaches the listeners that stay, nothing hangs.
#include <thread>

#include "taskstest.h"

namespace ky::test {
namespace {

using Stress = TasksTest;

constexpr int kThreads = 8;
constexpr int kTasks = 600;  // per thread
constexpr int kUpdates = 4;  // per task

TEST_F(Stress, EightThreadsWorkTheListWhileListenersComeAndGo) {
    ComPtr<EventSink> steady[2] = {AdvisedSink(), AdvisedSink()};
    std::atomic<int> counts[2][4] = {};
    for (int s = 0; s < 2; ++s) {
        steady[s]->onEvent = [&counts, s](const Event& event, DISPPARAMS&) { ++counts[s][event.id]; };
    }
    IKyTasks* list = tasks.Get();  // free-threaded in use
    IConnectionPoint* events = point.Get();
    std::atomic<bool> done{false};
    std::vector<std::thread> threads, churn;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            com::Bstr name((L"Worker " + std::to_wstring(t)).c_str());
            for (int i = 0; i < kTasks; ++i) {
                ComPtr<IKyTask> task;
                EXPECT_HR(S_OK, list->Add(name, VARIANT_FALSE, nullptr, &task));
                for (int u = 0; u < kUpdates - 1; ++u) EXPECT_HR(S_OK, task->put_Progress(u * 10));
                EXPECT_HR(S_OK, task->put_Description(name));
                EXPECT_HR(S_OK, i % 2 ? task->Delete() : list->Remove(task.Get()));
                // Readers in between.
                LONG count = 0;
                EXPECT_HR(S_OK, list->get_Count(&count));
                ComPtr<IUnknown> snapshot;
                EXPECT_HR(S_OK, list->get__NewEnum(&snapshot));
            }
            ::CoUninitialize();
        });
    }
    for (int c = 0; c < 2; ++c) {
        churn.emplace_back([&] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            auto passing = New<EventSink>();
            while (!done) {
                DWORD cookie = 0;
                EXPECT_HR(S_OK, events->Advise(passing->Identity(), &cookie));
                std::this_thread::yield();
                EXPECT_HR(S_OK, events->Unadvise(cookie));
            }
            ::CoUninitialize();
        });
    }
    for (auto& thread : threads) thread.join();
    done = true;
    for (auto& thread : churn) thread.join();

    const int added = kThreads * kTasks;
    for (int s = 0; s < 2; ++s) {
        EXPECT_EQ(added, counts[s][1].load());
        EXPECT_EQ(added, counts[s][2].load());
        EXPECT_EQ(added * kUpdates, counts[s][3].load());
    }
    EXPECT_EQ(0, Count());
}

}  // namespace
}  // namespace ky::test
