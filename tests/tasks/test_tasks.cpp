// Tasks and the task list through their own interfaces: defaults, ranges,
// the event each change sends, finding and removing tasks, cookies and
// enumeration over a snapshot.
#include "messages.h"
#include "taskstest.h"

namespace ky::test {
namespace {

using Tasks = TasksTest;

TEST_F(Tasks, ANewTaskHasItsNameAndTheDefaults) {
    auto task = Add(L"Copying", VARIANT_BOOL(5));
    BSTR name = nullptr, description = nullptr, module = nullptr;
    int progress = 0, tag = 1;
    ULONG flags = 0;
    UINT resource = 0;
    VARIANT_BOOL show = 0, cancel = 0;
    EXPECT_HR(S_OK, task->get_Name(&name));
    EXPECT_HR(S_OK, task->get_Description(&description));
    EXPECT_HR(S_OK, task->get_Progress(&progress));
    EXPECT_HR(S_OK, task->get_Tag(&tag));
    EXPECT_HR(S_OK, task->get_Flags(&flags));
    EXPECT_HR(S_OK, task->GetAnimation(&module, &resource));
    EXPECT_HR(S_OK, task->get_ShowProgressDialog(&show));
    EXPECT_HR(S_OK, task->get_CanCancel(&cancel));
    EXPECT_EQ(L"Copying", Text(name));
    EXPECT_EQ(nullptr, description);
    EXPECT_EQ(-1, progress);
    EXPECT_EQ(0, tag);
    EXPECT_EQ(ULONG(KYTF_ANIMATION_PLAYING), flags);
    EXPECT_EQ(nullptr, module);
    EXPECT_EQ(0xFFFFFFFFu, resource);
    EXPECT_EQ(VARIANT_BOOL(5), show);  // kept as it was passed
    EXPECT_EQ(VARIANT_FALSE, cancel);
    ::SysFreeString(name);

    EXPECT_HR(E_POINTER, task->get_Name(nullptr));
    EXPECT_HR(E_POINTER, task->get_Progress(nullptr));
    EXPECT_HR(E_POINTER, task->get_CanCancel(nullptr));
    EXPECT_HR(E_POINTER, task->GetAnimation(nullptr, &resource));
    EXPECT_HR(E_POINTER, task->GetAnimation(&module, nullptr));
}

TEST_F(Tasks, EachSetterChecksItsRangeAndAnnouncesItsChange) {
    auto task = Add(L"Setters");
    auto sink = AdvisedSink();
    com::Bstr name(L"Moving"), empty(L""), description(L"3 of 7"), module(L"my.dll");
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
        {"progress 0", [&] { return task->put_Progress(0); }, S_OK, KYTUT_PROGRESS},
        {"progress 100", [&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {"same progress", [&] { return task->put_Progress(100); }, S_OK, KYTUT_PROGRESS},
        {"progress -2", [&] { return task->put_Progress(-2); }, E_INVALIDARG, 0},
        {"progress 101", [&] { return task->put_Progress(101); }, E_INVALIDARG, 0},
        {"stopped", [&] { return task->put_Flags(KYTF_ANIMATION_STOPPED); }, S_OK, KYTUT_FLAGS},
        {"flags 0", [&] { return task->put_Flags(0); }, E_INVALIDARG, 0},
        {"both flags", [&] { return task->put_Flags(0x300); }, E_INVALIDARG, 0},
        {"animation", [&] { return task->SetAnimation(module, 7); }, S_OK, KYTUT_ANIMATION},
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
        EXPECT_EQ(3, events[heard].id);
        EXPECT_EQ(c.update, events[heard].update);
        EXPECT_EQ(IdentityOf(task.Get()), events[heard++].task);
    }
    // What was accepted is stored; what was refused left no trace.
    BSTR text = nullptr;
    int progress = 0, tag = 0;
    ULONG flags = 0;
    UINT resource = 0;
    task->get_Name(&text);
    EXPECT_EQ(L"Moving", Text(text));
    ::SysFreeString(text);
    task->GetAnimation(&text, &resource);
    EXPECT_EQ(L"my.dll", Text(text));
    EXPECT_EQ(7u, resource);
    ::SysFreeString(text);
    task->get_Progress(&progress);
    task->get_Tag(&tag);
    task->get_Flags(&flags);
    EXPECT_EQ(100, progress);
    EXPECT_EQ(-42, tag);
    EXPECT_EQ(ULONG(KYTF_ANIMATION_STOPPED), flags);
    // An empty description clears it, and is announced.
    EXPECT_HR(S_OK, task->put_Description(empty));
    EXPECT_HR(S_OK, task->get_Description(&text));
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ(heard + 1, sink->Count());
}

TEST_F(Tasks, StandardAnimationsComeFromTheShellLibrary) {
    auto task = Add(L"Animated");
    const struct {
        KYTASKANIMATION animation;
        const wchar_t* module;
        UINT resource;
    } table[] = {{KYTA_COPY, L"shell32.dll", 161},       {KYTA_MOVE, L"shell32.dll", 160},
                 {KYTA_DELETE, L"shell32.dll", 164},     {KYTA_DOWNLOAD, L"shell32.dll", 170},
                 {KYTA_FLASHLIGHT, L"shell32.dll", 150}, {KYTA_PROPERTIES, L"shell32.dll", 165},
                 {KYTA_NONE, L"(null)", 0xFFFFFFFF}};
    for (const auto& row : table) {
        EXPECT_HR(S_OK, task->SetStandardAnimation(row.animation));
        BSTR module = nullptr;
        UINT resource = 0;
        EXPECT_HR(S_OK, task->GetAnimation(&module, &resource));
        EXPECT_EQ(row.module, Text(module));
        EXPECT_EQ(row.resource, resource);
        ::SysFreeString(module);
    }
}

TEST_F(Tasks, AFailingListenerIsReportedThoughTheValueStands) {
    auto task = Add(L"Watched");
    auto first = AdvisedSink(), last = AdvisedSink();
    last->result = E_ACCESSDENIED;
    EXPECT_HR(E_ACCESSDENIED, task->put_Progress(40));
    int progress = 0;
    task->get_Progress(&progress);
    EXPECT_EQ(40, progress);
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
    auto cancellable = Add(L"Cancellable", VARIANT_FALSE, canceller.Get());
    auto plain = Add(L"Plain");
    auto sink = AdvisedSink();
    VARIANT_BOOL can = VARIANT_FALSE;
    EXPECT_HR(S_OK, cancellable->get_CanCancel(&can));
    EXPECT_EQ(VARIANT_TRUE, can);
    EXPECT_HR(S_OK, cancellable->Cancel());
    canceller->result = E_FAIL;  // what the operation answers is its own business
    EXPECT_HR(S_OK, cancellable->Cancel());
    EXPECT_EQ(2, canceller->cancels.load());
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

    auto first = Add(L"First"), second = Add(L"Second"), last = Add(L"Last");
    EXPECT_EQ(first.Get(), Item(Index(0)));
    EXPECT_EQ(last.Get(), Item(Index(Count() - 1)));
    Item(Index(Count()), E_INVALIDARG);
    Item(Index(-1), E_INVALIDARG);
    // Any value that converts to a number is a position; a name is not.
    com::Variant index;
    V_VT(&index) = VT_BSTR;
    V_BSTR(&index) = ::SysAllocString(L"1");
    EXPECT_EQ(second.Get(), Item(index));
    ::SysReAllocString(&V_BSTR(&index), L"First");
    Item(index, DISP_E_TYPEMISMATCH);
    index.Clear();
    Item(index, E_INVALIDARG);  // no index at all is not position 0
    VARIANT two = Index(2), byRef;
    V_VT(&byRef) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&byRef) = &two;  // how a script passes a variable
    EXPECT_EQ(last.Get(), Item(byRef));
    EXPECT_HR(E_POINTER, tasks->get_Item(two, nullptr));
    EXPECT_HR(E_POINTER, tasks->get_Count(nullptr));
}

TEST_F(Tasks, RemoveAndDeleteTakeATaskOutOnce) {
    auto keep = Add(L"Keep"), go = Add(L"Go"), self = Add(L"Self");
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
    EXPECT_EQ(keep.Get(), Item(Index(0)));
    // Off the list, a task still works and still tells the listeners.
    EXPECT_HR(S_OK, go->put_Progress(10));
    auto events = sink->Events();
    ASSERT_EQ(3u, events.size());
    EXPECT_EQ(2, events[0].id);
    EXPECT_EQ(IdentityOf(go.Get()), events[0].task);
    EXPECT_EQ(2, events[1].id);
    EXPECT_EQ(IdentityOf(self.Get()), events[1].task);
    EXPECT_EQ(3, events[2].id);
}

TEST_F(Tasks, CookiesAreSlotsThatSurviveAnUnadvise) {
    auto a = New<EventSink>(), b = New<EventSink>(), c = New<EventSink>();
    EXPECT_EQ(1u, Advise(a.Get()));
    EXPECT_EQ(2u, Advise(b.Get()));
    EXPECT_HR(S_OK, point->Unadvise(1));
    auto task = Add(L"Heard by b");
    EXPECT_EQ(0u, a->Count());
    EXPECT_EQ(1u, b->Count());
    EXPECT_EQ(1u, Advise(c.Get()));  // the free slot comes first; b keeps 2
    EXPECT_HR(S_OK, point->Unadvise(2));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(2));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(0));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(99));
    task->put_Progress(1);
    EXPECT_EQ(1u, b->Count());
    EXPECT_EQ(1u, c->Count());
    // A sink must speak the event interface.
    DWORD cookie = 5;
    EXPECT_HR(CONNECT_E_CANNOTCONNECT, point->Advise(New<Canceller>()->Identity(), &cookie));
    EXPECT_EQ(0u, cookie);
    // The list has that one connection point.
    ComPtr<IConnectionPointContainer> container;
    ComPtr<IConnectionPoint> other;
    ASSERT_HR(S_OK, tasks.As(&container));
    EXPECT_HR(CONNECT_E_NOCONNECTION, container->FindConnectionPoint(IID_IPropertyNotifySink, &other));
}

// What an IEnumVARIANT hands out one at a time, as task identities.
std::vector<IUnknown*> Drain(IEnumVARIANT* e) {
    std::vector<IUnknown*> found;
    VARIANT item;
    while (e->Next(1, &item, nullptr) == S_OK) {
        EXPECT_EQ(VT_UNKNOWN, V_VT(&item));
        found.push_back(IdentityOf(V_UNKNOWN(&item)));
        ::VariantClear(&item);
    }
    return found;
}

TEST_F(Tasks, AnEnumeratorSeesTheListAsItWas) {
    auto a = Add(L"A"), b = Add(L"B");
    ComPtr<IUnknown> unknown;
    ASSERT_HR(S_OK, tasks->get__NewEnum(&unknown));
    ComPtr<IEnumVARIANT> e;
    ASSERT_HR(S_OK, unknown.As(&e));
    auto c = Add(L"C");
    EXPECT_HR(S_OK, tasks->Remove(a.Get()));

    VARIANT items[3] = {};
    ULONG fetched = 0;
    EXPECT_HR(E_POINTER, e->Next(2, items, nullptr));  // one at a time needs no count; more do
    EXPECT_HR(S_OK, e->Skip(1));
    ComPtr<IEnumVARIANT> clone;
    ASSERT_HR(S_OK, e->Clone(&clone));
    EXPECT_HR(S_FALSE, e->Next(3, items, &fetched));
    ASSERT_EQ(1u, fetched);
    EXPECT_EQ(IdentityOf(b.Get()), IdentityOf(V_UNKNOWN(&items[0])));
    ::VariantClear(&items[0]);
    EXPECT_EQ(std::vector<IUnknown*>{IdentityOf(b.Get())}, Drain(clone.Get()));
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_EQ((std::vector<IUnknown*>{IdentityOf(a.Get()), IdentityOf(b.Get())}), Drain(e.Get()));
    // A large request costs no more than what is there.
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_FALSE, e->Next(0x7FFFFFFF, items, &fetched));
    EXPECT_EQ(2u, fetched);
    for (VARIANT& item : items) ::VariantClear(&item);

    ASSERT_HR(S_OK, tasks->get__NewEnum(&unknown));
    ASSERT_HR(S_OK, unknown.As(&e));
    EXPECT_EQ((std::vector<IUnknown*>{IdentityOf(b.Get()), IdentityOf(c.Get())}), Drain(e.Get()));
    EXPECT_HR(E_POINTER, tasks->get__NewEnum(nullptr));
}

}  // namespace
}  // namespace ky::test
