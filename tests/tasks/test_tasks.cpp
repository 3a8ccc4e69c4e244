// Tasks and the task list as clients use them: defaults, ranges, the event
// each change sends, finding and removing tasks, cookies, enumeration over a
// snapshot, and dispatch sinks (calling back, or in another apartment).
#include "messages.h"
#include "taskstest.h"

namespace ky::test {
namespace {

using Tasks = TasksTest;
using Texts = std::vector<std::wstring>;

TEST_F(Tasks, EachSetterChecksItsRangeAndAnnouncesItsChange) {
    auto task = Add(L"Setters");
    EXPECT_EQ(L"Setters, (null), -1, 0x200, (null), -1, 0", State(task.Get()));  // the defaults
    auto sink = AdvisedSink();
    com::Bstr name(L"Moving"), empty(L""), description(L"3 of 7");
    const struct {
        const char* what;
        std::function<HRESULT()> set;
        HRESULT expected;
        ULONG update;  // 0: no event
    } cases[] = {
        {"name", [&] { return task->put_Name(name); }, S_OK, KYTUT_NAME},
        {"same name", [&] { return task->put_Name(name); }, S_OK, KYTUT_NAME},
        {"empty name", [&] { return task->put_Name(empty); }, E_INVALIDARG, 0},
        {"null name", [&] { return task->put_Name(nullptr); }, E_INVALIDARG, 0},
        {"description", [&] { return task->put_Description(description); }, S_OK, KYTUT_DESCRIPTION},
        {"progress -1", [&] { return task->put_Progress(-1); }, S_OK, KYTUT_PROGRESS},
        {"progress 100", [&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {"same progress", [&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {"progress -2", [&] { return task->put_Progress(-2); }, E_INVALIDARG, 0},
        {"progress 101", [&] { return task->put_Progress(101); }, E_INVALIDARG, 0},
        {"stopped", [&] { return task->put_Flags(KYTF_ANIMATION_STOPPED); }, S_OK, KYTUT_FLAGS},
        {"flags 0", [&] { return task->put_Flags(0); }, E_INVALIDARG, 0},
        {"both flags", [&] { return task->put_Flags(0x300); }, E_INVALIDARG, 0},
        {"no animation", [&] { return task->SetStandardAnimation(KYTA_NONE); }, S_OK, KYTUT_ANIMATION},
        {"copy animation", [&] { return task->SetStandardAnimation(KYTA_COPY); }, S_OK, KYTUT_ANIMATION},
        {"no standard 4", [&] { return task->SetStandardAnimation(KYTASKANIMATION(4)); }, E_KY_ELEMENTNOTFOUND, 0},
        {"tag", [&] { return task->put_Tag(-42); }, S_OK, 0},
    };
    size_t heard = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_HR(c.expected, c.set());
        auto events = sink->Events();
        ASSERT_EQ(heard + (c.update ? 1 : 0), events.size());
        if (!c.update) continue;
        EXPECT_EQ(L"3(ui4 " + std::to_wstring(c.update) + L", Moving)", events[heard++].call);
    }
    // What was accepted is stored; what was refused left no trace.
    EXPECT_EQ(L"Moving, 3 of 7, 100, 0x100, shell32.dll, 161, -42", State(task.Get()));
    // An empty description clears it, and is announced.
    EXPECT_HR(S_OK, task->put_Description(empty));
    EXPECT_EQ(L"Moving, (null), 100, 0x100, shell32.dll, 161, -42", State(task.Get()));
    EXPECT_EQ(heard + 1, sink->Count());
}

TEST_F(Tasks, AFailingListenerIsReportedThoughTheValueStands) {
    auto task = Add(L"Watched");
    auto first = AdvisedSink(), last = AdvisedSink();
    last->result = E_ACCESSDENIED;
    EXPECT_HR(E_ACCESSDENIED, task->put_Progress(40));
    EXPECT_EQ(L"Watched, (null), 40, 0x200, (null), -1, 0", State(task.Get()));
    // Only the last listener called decides; all are called.
    last->result = S_OK;
    first->result = E_FAIL;
    EXPECT_HR(S_OK, task->put_Progress(50));
    EXPECT_EQ(2u, first->Count());
    // Add and Remove report it too, and their change stands as well.
    last->result = E_ABORT;
    IKyTask* added = nullptr;
    EXPECT_HR(E_ABORT, tasks->Add(com::Bstr(L"Added"), VARIANT_FALSE, nullptr, &added));
    ASSERT_NE(nullptr, added);
    EXPECT_EQ(2, Count());
    EXPECT_HR(E_ABORT, tasks->Remove(added));
    EXPECT_EQ(1, Count());
    added->Release();
}

TEST_F(Tasks, CancelAsksTheOperationAndNothingElse) {
    auto canceller = New<Canceller>();
    auto cancellable = Add(L"Cancellable", VARIANT_BOOL(5), canceller.Get()), plain = Add(L"Plain");
    auto sink = AdvisedSink();
    VARIANT_BOOL show = 0, can[2] = {};
    EXPECT_HR(S_OK, cancellable->get_ShowProgressDialog(&show));
    EXPECT_HR(S_OK, cancellable->get_CanCancel(&can[0]));
    EXPECT_HR(S_OK, plain->get_CanCancel(&can[1]));
    EXPECT_EQ(VARIANT_BOOL(5), show);  // kept as it was passed
    EXPECT_EQ(VARIANT_TRUE, can[0]);
    EXPECT_EQ(VARIANT_FALSE, can[1]);
    canceller->result = E_FAIL;  // what the operation answers is its own business
    EXPECT_HR(S_OK, cancellable->Cancel());
    EXPECT_EQ(1, canceller->cancels.load());
    EXPECT_HR(E_UNEXPECTED, plain->Cancel());
    EXPECT_EQ(0u, sink->Count());
    EXPECT_EQ(2, Count());
}

TEST_F(Tasks, AddAndItemCheckTheirArguments) {
    auto sink = AdvisedSink();
    IKyTask* task = reinterpret_cast<IKyTask*>(1);
    EXPECT_HR(E_POINTER, tasks->Add(com::Bstr(L"Search"), VARIANT_FALSE, nullptr, nullptr));
    EXPECT_HR(E_INVALIDARG, tasks->Add(com::Bstr(L""), VARIANT_FALSE, nullptr, &task));
    EXPECT_EQ(nullptr, task);
    EXPECT_HR(E_INVALIDARG, tasks->Add(nullptr, VARIANT_FALSE, nullptr, &task));
    EXPECT_EQ(0u, sink->Count());

    for (const wchar_t* name : {L"First", L"Second", L"Last"}) Add(name);
    EXPECT_EQ(L"First", Item(Number(0)));
    EXPECT_EQ(L"Last", Item(Number(Count() - 1)));
    Item(Number(Count()), E_INVALIDARG);
    Item(Number(-1), E_INVALIDARG);
    // Any value that converts to a number is a position; a name is not.
    com::Variant index;
    V_VT(&index) = VT_BSTR;
    V_BSTR(&index) = ::SysAllocString(L"1");
    EXPECT_EQ(L"Second", Item(index));
    ::SysReAllocString(&V_BSTR(&index), L"First");
    Item(index, DISP_E_TYPEMISMATCH);
    index.Clear();
    Item(index, E_INVALIDARG);  // no index at all is not position 0
    VARIANT two = Number(2), byRef;
    V_VT(&byRef) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&byRef) = &two;  // how a script passes a variable
    EXPECT_EQ(L"Last", Item(byRef));
    EXPECT_HR(E_POINTER, tasks->get_Item(two, nullptr));
}

TEST_F(Tasks, RemoveAndDeleteTakeATaskOutOnce) {
    auto go = Add(L"Go"), keep = Add(L"Keep"), self = Add(L"Self");
    auto sink = AdvisedSink();
    // Identity decides, whichever interface of the task is passed.
    ComPtr<IDispatch> dispatch;
    ASSERT_HR(S_OK, go.As(&dispatch));
    EXPECT_HR(S_OK, tasks->Remove(static_cast<IKyTask*>(dispatch.Get())));
    EXPECT_HR(E_UNEXPECTED, tasks->Remove(go.Get()));
    EXPECT_HR(E_POINTER, tasks->Remove(nullptr));
    EXPECT_HR(S_OK, self->Delete());
    EXPECT_HR(E_UNEXPECTED, self->Delete());
    EXPECT_EQ(1, Count());
    EXPECT_EQ(L"Keep", Item(Number(0)));
    // Off the list, a task still works and still tells the listeners.
    EXPECT_HR(S_OK, go->put_Progress(10));
    EXPECT_EQ((Texts{L"2(Go)", L"2(Self)", L"3(ui4 4, Go)"}), sink->Calls());
}

TEST_F(Tasks, CookiesAreSlotsThatSurviveAnUnadvise) {
    auto a = New<EventSink>(), b = New<EventSink>(), c = New<EventSink>();
    EXPECT_EQ(1u, Advise(a.Get()));
    EXPECT_EQ(2u, Advise(b.Get()));
    EXPECT_HR(S_OK, point->Unadvise(1));
    auto task = Add(L"Heard by b");
    EXPECT_EQ(1u, Advise(c.Get()));  // the free slot comes first; b keeps 2
    EXPECT_HR(S_OK, point->Unadvise(2));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(2));
    task->put_Progress(1);
    EXPECT_EQ(0u, a->Count());
    EXPECT_EQ(1u, b->Count());
    EXPECT_EQ(1u, c->Count());
}

// The names of the tasks an IEnumVARIANT hands out one at a time.
Texts Drain(IEnumVARIANT* e) {
    Texts names;
    com::Variant item;
    while (e->Next(1, item.Out(), nullptr) == S_OK) {
        ComPtr<IKyTask> task;
        EXPECT_EQ(VT_UNKNOWN, V_VT(&item));
        EXPECT_HR(S_OK, V_UNKNOWN(&item)->QueryInterface(IID_PPV_ARGS(&task)));
        names.push_back(NameOf(task.Get()));
    }
    return names;
}

TEST_F(Tasks, AnEnumeratorSeesTheListAsItWas) {
    auto a = Add(L"A");
    Add(L"B");
    ComPtr<IUnknown> unknown;
    ComPtr<IEnumVARIANT> e, clone;
    ASSERT_HR(S_OK, tasks->get__NewEnum(&unknown));
    ASSERT_HR(S_OK, unknown.As(&e));
    Add(L"C");
    EXPECT_HR(S_OK, tasks->Remove(a.Get()));

    VARIANT items[3] = {};
    ULONG fetched = 0;
    EXPECT_HR(E_POINTER, e->Next(2, items, nullptr));  // one at a time needs no count; more do
    EXPECT_HR(S_OK, e->Skip(1));
    ASSERT_HR(S_OK, e->Clone(&clone));
    EXPECT_EQ(Texts{L"B"}, Drain(clone.Get()));
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_EQ((Texts{L"A", L"B"}), Drain(e.Get()));
    // A large request costs no more than what is there.
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_FALSE, e->Next(0x7FFFFFFF, items, &fetched));
    EXPECT_EQ(2u, fetched);
    for (VARIANT& item : items) ::VariantClear(&item);

    ASSERT_HR(S_OK, tasks->get__NewEnum(&unknown));
    ASSERT_HR(S_OK, unknown.As(&e));
    EXPECT_EQ((Texts{L"B", L"C"}), Drain(e.Get()));
}

TEST_F(Tasks, ADispatchSinkHearsEachEventWithItsArgumentsAndMayCallBack) {
    auto sink = AdvisedSink();  // it reads each task's name
    Texts counts;
    sink->onEvent = [&](const Event& event, DISPPARAMS& params) {
        counts.push_back(std::to_wstring(Count()));
        ComPtr<IKyTask> task;
        V_DISPATCH(&params.rgvarg[params.cArgs - 1])->QueryInterface(IID_PPV_ARGS(&task));
        if (event.id == 1) task->put_Progress(0);  // announced in turn
    };
    EXPECT_HR(S_OK, Add(L"Nested")->Delete());
    // OnAdd, OnUpdate with the progress flag, OnRemove; arguments last first.
    EXPECT_EQ((Texts{L"1(Nested)", L"3(ui4 4, Nested)", L"2(Nested)"}), sink->Calls());
    EXPECT_EQ((Texts{L"1", L"1", L"0"}), counts);
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
    DWORD cookie = 0;
    ASSERT_HR(S_OK, point->Advise(proxy.Get(), &cookie));

    auto task = Add(L"Remote");
    EXPECT_HR(S_OK, task->put_Flags(KYTF_ANIMATION_STOPPED));
    sink->result = E_ABORT;  // a failure crosses back
    EXPECT_HR(E_ABORT, task->Delete());
    // The sink read each name through a proxy back into the list's apartment.
    EXPECT_EQ((Texts{L"1(Remote)", L"3(ui4 16, Remote)", L"2(Remote)"}), sink->Calls());
    for (const Event& event : sink->Events()) EXPECT_EQ(sta.ThreadId(), event.calledOn);

    EXPECT_HR(S_OK, point->Unadvise(cookie));
    proxy.Reset();
    sta.Run([&] { sink.Reset(); });
}

}  // namespace
}  // namespace ky::test
