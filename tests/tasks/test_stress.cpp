// Many threads adding, changing and removing tasks while listeners come
// and go: every event reaches the listeners that stay, nothing hangs.
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
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            com::Bstr name((L"Worker " + std::to_wstring(t)).c_str());
            for (int i = 0; i < kTasks; ++i) {
                ComPtr<IKyTask> task;
                EXPECT_HR(S_OK, list->Add(name, VARIANT_FALSE, nullptr, &task));
                for (int u = 0; u < kUpdates - 1; ++u) EXPECT_HR(S_OK, task->put_Progress(u * 10));
                EXPECT_HR(S_OK, task->put_Description(name));
                // Half of the tasks delete themselves.
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
    // Listeners that come and go meanwhile, from two more threads.
    std::vector<std::thread> churn;
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

    const int tasksAdded = kThreads * kTasks;
    for (int s = 0; s < 2; ++s) {
        EXPECT_EQ(tasksAdded, counts[s][1].load());
        EXPECT_EQ(tasksAdded, counts[s][2].load());
        EXPECT_EQ(tasksAdded * kUpdates, counts[s][3].load());
    }
    EXPECT_EQ(0, Count());
    // The steady listeners are still in their first two slots.
    ComPtr<IEnumConnections> connections;
    ASSERT_HR(S_OK, point->EnumConnections(&connections));
    CONNECTDATA data[4] = {};
    ULONG fetched = 0;
    connections->Next(4, data, &fetched);
    ASSERT_EQ(2u, fetched);
    for (ULONG i = 0; i < fetched; ++i) {
        EXPECT_EQ(i + 1, data[i].dwCookie);
        data[i].pUnk->Release();
    }
}

}  // namespace
}  // namespace ky::test
