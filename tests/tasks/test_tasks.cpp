// Tasks and the task list as clients use them, from one thread, another apartment and many threads.

#include <functional>
#include <mutex>
#include <thread>

#include "com/module.h"
#include "com/raii.h"
#include "eventsinkbase.h"
#include "kytest.h"
#include "messages.h"

namespace ky::test {
namespace {

class TestModule : public com::Module {};  // the sinks count in this program's module
TestModule g_module;

using Microsoft::WRL::ComPtr;
using Texts = std::vector<std::wstring>;

template <class T>
ComPtr<T> New() { ComPtr<T> object; return T::Make(object), object; }

std::wstring NameOf(IUnknown* unknown) {
    ComPtr<IKyTask> task;
    com::Bstr name;
    if (FAILED(unknown->QueryInterface(IID_PPV_ARGS(&task))) || FAILED(task->get_Name(name.Out()))) return L"?";
    return std::wstring(name, name.Length());
}

// A listener as scripts make them, taking plain calls: records "<dispid>(<arguments, last first>)".
class EventSink : public EventSinkBase<EventSink> {
public:
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params, VARIANT*, EXCEPINFO*,
                        UINT*) override {
        if (!IsEqualIID(riid, IID_NULL) || flags != DISPATCH_METHOD) return DISP_E_MEMBERNOTFOUND;
        std::wstring call = std::to_wstring(id) + L"(";
        for (UINT i = 0; i < params->cArgs; ++i) {
            const VARIANT& arg = params->rgvarg[i];
            call += (i ? L", " : L"") + (V_VT(&arg) == VT_UI4 ? std::to_wstring(V_UI4(&arg)) : NameOf(V_DISPATCH(&arg)));
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        calls.push_back(call + L")");
        ++counts[id & 3];
        return result;
    }
    Texts calls;
    int counts[4] = {};
    HRESULT result = S_OK;
    std::mutex m_mutex;
};

class Canceller : public com::Object<Canceller, ICancelAsyncOperation> {
public:
    STDMETHODIMP get_Status(ULONG* status) override { return *status = 0, S_OK; }
    STDMETHODIMP Cancel() override { return ++cancels, E_FAIL; }  // its answer is the operation's own business
    int cancels = 0;
};

// The task list is one object for the process: each test takes away what it added.
class Tasks : public ::testing::Test {
protected:
    void SetUp() override {
        ::CoCreateInstance(CLSID_KyTasks, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&tasks));
        ComPtr<IConnectionPointContainer> container;
        ASSERT_HR(S_OK, tasks.As(&container));
        ASSERT_HR(S_OK, container->FindConnectionPoint(DIID__IKyTasksEvents, &point));
    }
    void TearDown() override {
        for (DWORD cookie : cookies) point->Unadvise(cookie);
        for (ComPtr<IKyTask> first; SUCCEEDED(tasks->get_Item(Number(0), &first));) tasks->Remove(first.Get());
    }
    ComPtr<IKyTask> Add(const wchar_t* name, ICancelAsyncOperation* cancel = nullptr) {
        ComPtr<IKyTask> task;
        EXPECT_HR(S_OK, tasks->Add(com::Bstr(name), VARIANT_FALSE, cancel, &task));
        return task;
    }
    void Advise(IUnknown* sink) { EXPECT_HR(S_OK, point->Advise(sink, &cookies.emplace_back())); }
    ComPtr<EventSink> AdvisedSink() { auto sink = New<EventSink>(); return Advise(sink->Identity()), sink; }

    ComPtr<IKyTasks> tasks;
    ComPtr<IConnectionPoint> point;
    std::vector<DWORD> cookies;
};

TEST_F(Tasks, EachSetterChecksItsRangeAndAnnouncesItsChange) {
    auto task = Add(L"Setters");
    auto sink = AdvisedSink();
    com::Bstr name(L"Moving"), empty(L""), description(L"3 of 7");
    const std::tuple<std::function<HRESULT()>, HRESULT, ULONG> cases[] = {  // the update announced, 0: none
        {[&] { return task->put_Name(name); }, S_OK, KYTUT_NAME},
        {[&] { return task->put_Name(empty); }, E_INVALIDARG, 0},
        {[&] { return task->put_Description(description); }, S_OK, KYTUT_DESCRIPTION},
        {[&] { return task->put_Progress(-1); }, S_OK, KYTUT_PROGRESS},
        {[&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {[&] { return task->put_Progress(-2); }, E_INVALIDARG, 0},
        {[&] { return task->put_Progress(101); }, E_INVALIDARG, 0},
        {[&] { return task->put_Flags(KYTF_ANIMATION_STOPPED); }, S_OK, KYTUT_FLAGS},
        {[&] { return task->put_Flags(0); }, E_INVALIDARG, 0},
        {[&] { return task->put_Flags(0x300); }, E_INVALIDARG, 0},
        {[&] { return task->SetStandardAnimation(KYTA_COPY); }, S_OK, KYTUT_ANIMATION},
        {[&] { return task->SetStandardAnimation(KYTASKANIMATION(4)); }, E_KY_ELEMENTNOTFOUND, 0},
    };
    Texts expected;
    for (const auto& [set, result, update] : cases) {
        EXPECT_HR(result, set());
        if (update) expected.push_back(L"3(" + std::to_wstring(update) + L", Moving)");
        EXPECT_EQ(expected, sink->calls);
    }
}

TEST_F(Tasks, AnyIndexThatConvertsToANumberIsAPosition) {
    for (const wchar_t* name : {L"First", L"Second", L"Last"}) Add(name);
    com::Bstr one(L"1"), name(L"First");
    VARIANT two = Number(2), byRef = Number(0, VT_VARIANT | VT_BYREF), text = Number(0, VT_BSTR), named = text;
    V_VARIANTREF(&byRef) = &two;  // how a script passes a variable
    V_BSTR(&text) = one;
    V_BSTR(&named) = name;  // a name is not a position, nor is no index at all
    const std::pair<VARIANT, HRESULT> cases[] = {{Number(0), S_OK}, {byRef, S_OK}, {text, S_OK},
        {Number(3), E_INVALIDARG}, {Number(-1), E_INVALIDARG}, {VARIANT{}, E_INVALIDARG}, {named, DISP_E_TYPEMISMATCH}};
    std::wstring found;
    for (const auto& [index, expected] : cases) {
        ComPtr<IKyTask> task;
        EXPECT_HR(expected, tasks->get_Item(index, &task));
        if (task) found += NameOf(task.Get()) + L" ";
    }
    EXPECT_EQ(L"First Last Second ", found);
}

TEST_F(Tasks, OnlyATaskWithACallbackCancels) {
    auto canceller = New<Canceller>();
    auto cancellable = Add(L"Cancellable", canceller.Get()), plain = Add(L"Plain");
    VARIANT_BOOL can[2] = {};
    EXPECT_HR(S_OK, cancellable->get_CanCancel(&can[0]) | plain->get_CanCancel(&can[1]));
    EXPECT_EQ(std::make_pair(VARIANT_TRUE, VARIANT_FALSE), std::make_pair(can[0], can[1]));
    EXPECT_HR(S_OK, cancellable->Cancel());
    EXPECT_EQ(1, canceller->cancels);
    EXPECT_HR(E_UNEXPECTED, plain->Cancel());
}

TEST_F(Tasks, RemoveAndDeleteTakeATaskOutOnceAndTheLastListenerDecidesTheResult) {
    auto go = Add(L"Go"), self = Add(L"Self");
    auto first = AdvisedSink(), last = AdvisedSink();
    first->result = E_FAIL;  // all are called; what the last one answers is reported
    EXPECT_HR(S_OK, tasks->Remove(go.Get()));
    EXPECT_HR(E_UNEXPECTED, tasks->Remove(go.Get()));
    last->result = E_ACCESSDENIED;
    EXPECT_HR(E_ACCESSDENIED, go->put_Progress(10));  // off the list, a task still tells the listeners
    EXPECT_HR(E_ACCESSDENIED, self->Delete());  // and the change stands
    EXPECT_HR(E_UNEXPECTED, self->Delete());
    EXPECT_EQ((Texts{L"2(Go)", L"3(4, Go)", L"2(Self)"}), first->calls);
}

TEST_F(Tasks, ASinkInAnotherApartmentHearsThroughAProxy) {
    StaThread sta;
    ComPtr<EventSink> sink;
    IStream* stream = nullptr;
    sta.Run([&] {
        sink = New<EventSink>();
        ::CoMarshalInterThreadInterfaceInStream(IID_IUnknown, sink->Identity(), &stream);
    });
    ComPtr<IUnknown> proxy;
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(stream, IID_PPV_ARGS(&proxy)));
    Advise(proxy.Get());
    auto task = Add(L"Remote");
    EXPECT_HR(S_OK, task->put_Flags(KYTF_ANIMATION_STOPPED));
    sink->result = E_ABORT;  // a failure crosses back
    EXPECT_HR(E_ABORT, task->Delete());
    // The sink read each name through a proxy back into the list's apartment.
    EXPECT_EQ((Texts{L"1(Remote)", L"3(16, Remote)", L"2(Remote)"}), sink->calls);
    TearDown();
    proxy.Reset();
    sta.Run([&] { sink.Reset(); });
}

// Threads work the list while listeners come and go: every event reaches the one that stays.
TEST_F(Tasks, ThreadsWorkTheListWhileListenersComeAndGo) {
    constexpr int kThreads = 4, kTasks = 50;
    auto steady = AdvisedSink(), passing = New<EventSink>();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            for (int i = 0; i < kTasks; ++i) {
                DWORD cookie = 0;
                EXPECT_HR(S_OK, point->Advise(passing->Identity(), &cookie));
                auto task = Add(L"Worker");  // the list is free-threaded in use
                EXPECT_HR(S_OK, task->put_Description(com::Bstr(L"busy")));
                EXPECT_HR(S_OK, point->Unadvise(cookie));
                EXPECT_HR(S_OK, i % 2 ? task->Delete() : tasks->Remove(task.Get()));
            }
            ::CoUninitialize();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ((std::vector<int>{0, kThreads * kTasks, kThreads * kTasks, kThreads * kTasks}),
              std::vector<int>(steady->counts, steady->counts + 4));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
