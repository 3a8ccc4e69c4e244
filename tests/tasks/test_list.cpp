// The task list: adding, finding and removing tasks, its listeners'
// cookies, and enumeration over a snapshot.
#include "taskstest.h"

namespace ky::test {
namespace {

using TaskList = TasksTest;

TEST_F(TaskList, AddChecksItsArgumentsAndAnnouncesTheTask) {
    auto sink = AdvisedSink();
    BSTR empty = ::SysAllocString(L"");
    BSTR name = ::SysAllocString(L"Search");
    IKyTask* task = reinterpret_cast<IKyTask*>(1);
    EXPECT_HR(E_POINTER, tasks->Add(name, VARIANT_FALSE, nullptr, nullptr));
    EXPECT_HR(E_INVALIDARG, tasks->Add(empty, VARIANT_FALSE, nullptr, &task));
    EXPECT_EQ(nullptr, task);
    EXPECT_HR(E_INVALIDARG, tasks->Add(nullptr, VARIANT_FALSE, nullptr, &task));
    EXPECT_EQ(0u, sink->Count());
    EXPECT_EQ(0, Count());

    // A failing listener is reported, but the task is in the list.
    sink->result = E_ABORT;
    EXPECT_HR(E_ABORT, tasks->Add(name, VARIANT_FALSE, nullptr, &task));
    ASSERT_NE(nullptr, task);
    EXPECT_EQ(1, Count());
    auto events = sink->Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(1, events[0].id);
    EXPECT_EQ(IdentityOf(task), events[0].task);
    task->Release();
    ::SysFreeString(empty);
    ::SysFreeString(name);
}

TEST_F(TaskList, ItemTakesAPositionInAnyConvertibleForm) {
    auto first = Add(L"First"), second = Add(L"Second"), last = Add(L"Last");
    EXPECT_EQ(first.Get(), Item(0).Get());
    EXPECT_EQ(last.Get(), Item(Count() - 1).Get());
    Item(Count(), E_INVALIDARG);
    Item(-1, E_INVALIDARG);

    VARIANT index;
    V_VT(&index) = VT_BSTR;
    V_BSTR(&index) = ::SysAllocString(L"1");
    EXPECT_EQ(second.Get(), Item(index).Get());
    ::VariantClear(&index);
    // Tasks have no keys: a name is not a position.
    V_VT(&index) = VT_BSTR;
    V_BSTR(&index) = ::SysAllocString(L"First");
    Item(index, DISP_E_TYPEMISMATCH);
    ::VariantClear(&index);
    V_VT(&index) = VT_R8;
    V_R8(&index) = 2.0;
    EXPECT_EQ(last.Get(), Item(index).Get());
    // A script's variable arrives by reference.
    VARIANT one, byRef;
    V_VT(&one) = VT_I2;
    V_I2(&one) = 1;
    V_VT(&byRef) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&byRef) = &one;
    EXPECT_EQ(second.Get(), Item(byRef).Get());
    // No index at all is not position 0.
    V_VT(&index) = VT_EMPTY;
    Item(index, E_INVALIDARG);
    V_VARIANTREF(&byRef) = &index;
    Item(byRef, E_INVALIDARG);

    V_VT(&index) = VT_I4;
    V_I4(&index) = 0;
    EXPECT_HR(E_POINTER, tasks->get_Item(index, nullptr));
    EXPECT_HR(E_POINTER, tasks->get_Count(nullptr));
}

TEST_F(TaskList, RemoveTakesTheTaskOutOnceAndAnnouncesIt) {
    auto keep = Add(L"Keep"), go = Add(L"Go");
    auto sink = AdvisedSink();
    // Identity decides, whichever interface of the task is passed.
    ComPtr<IDispatch> dispatch;
    ASSERT_HR(S_OK, go.As(&dispatch));
    EXPECT_HR(S_OK, tasks->Remove(static_cast<IKyTask*>(dispatch.Get())));
    EXPECT_HR(E_UNEXPECTED, tasks->Remove(go.Get()));
    EXPECT_HR(E_POINTER, tasks->Remove(nullptr));
    EXPECT_EQ(1, Count());
    EXPECT_EQ(keep.Get(), Item(0).Get());
    auto events = sink->Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(2, events[0].id);
    EXPECT_EQ(IdentityOf(go.Get()), events[0].task);
}

TEST_F(TaskList, CookiesAreSlotsThatSurviveAnUnadvise) {
    auto a = New<EventSink>(), b = New<EventSink>(), c = New<EventSink>();
    DWORD ca = Advise(a.Get());
    DWORD cb = Advise(b.Get());
    EXPECT_EQ(1u, ca);
    EXPECT_EQ(2u, cb);
    EXPECT_HR(S_OK, point->Unadvise(ca));
    auto task = Add(L"Heard by b");
    EXPECT_EQ(0u, a->Count());
    EXPECT_EQ(1u, b->Count());
    // The free slot is the next one given out; b keeps its cookie.
    EXPECT_EQ(1u, Advise(c.Get()));
    EXPECT_HR(S_OK, point->Unadvise(cb));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(cb));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(0));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(99));
    task->put_Progress(1);
    EXPECT_EQ(1u, b->Count());
    EXPECT_EQ(1u, c->Count());

    // A sink must speak the event interface.
    auto canceller = New<Canceller>();
    DWORD cookie = 5;
    EXPECT_HR(CONNECT_E_CANNOTCONNECT, point->Advise(canceller->Identity(), &cookie));
    EXPECT_EQ(0u, cookie);
    EXPECT_HR(E_POINTER, point->Advise(nullptr, &cookie));
    EXPECT_HR(E_POINTER, point->Advise(c->Identity(), nullptr));
}

TEST_F(TaskList, TheListHasExactlyOneConnectionPoint) {
    ComPtr<IConnectionPointContainer> container;
    ASSERT_HR(S_OK, tasks.As(&container));
    ComPtr<IConnectionPoint> other;
    EXPECT_HR(CONNECT_E_NOCONNECTION, container->FindConnectionPoint(IID_IPropertyNotifySink, &other));
    ComPtr<IEnumConnectionPoints> points;
    ASSERT_HR(S_OK, container->EnumConnectionPoints(&points));
    ComPtr<IConnectionPoint> only;
    EXPECT_HR(S_OK, points->Next(1, &only, nullptr));
    EXPECT_EQ(point.Get(), only.Get());
    EXPECT_HR(S_FALSE, points->Skip(1));
    IID iid;
    EXPECT_HR(S_OK, only->GetConnectionInterface(&iid));
    EXPECT_TRUE(IsEqualIID(DIID__IKyTasksEvents, iid));

    auto sink = AdvisedSink();
    ComPtr<IEnumConnections> connections;
    ASSERT_HR(S_OK, point->EnumConnections(&connections));
    CONNECTDATA data{};
    EXPECT_HR(S_OK, connections->Next(1, &data, nullptr));
    EXPECT_EQ(sink->Identity(), IdentityOf(data.pUnk));
    data.pUnk->Release();
}

// What an IEnumVARIANT hands out, as task identities.
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

TEST_F(TaskList, AnEnumeratorSeesTheListAsItWas) {
    auto a = Add(L"A"), b = Add(L"B");
    ComPtr<IUnknown> unknown;
    ASSERT_HR(S_OK, tasks->get__NewEnum(&unknown));
    ComPtr<IEnumVARIANT> e;
    ASSERT_HR(S_OK, unknown.As(&e));
    auto c = Add(L"C");
    EXPECT_HR(S_OK, tasks->Remove(a.Get()));

    ComPtr<IEnumVARIANT> clone;
    ASSERT_HR(S_OK, e->Clone(&clone));
    std::vector<IUnknown*> expected{IdentityOf(a.Get()), IdentityOf(b.Get())};
    EXPECT_EQ(expected, Drain(e.Get()));
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_EQ(expected, Drain(e.Get()));
    EXPECT_EQ(expected, Drain(clone.Get()));
    ComPtr<IUnknown> now;
    ASSERT_HR(S_OK, tasks->get__NewEnum(&now));
    ComPtr<IEnumVARIANT> later;
    ASSERT_HR(S_OK, now.As(&later));
    EXPECT_EQ((std::vector<IUnknown*>{IdentityOf(b.Get()), IdentityOf(c.Get())}), Drain(later.Get()));
    EXPECT_HR(E_POINTER, tasks->get__NewEnum(nullptr));
}

TEST_F(TaskList, AnEnumeratorKeepsTheStandardContract) {
    auto a = Add(L"A"), b = Add(L"B"), c = Add(L"C");
    ComPtr<IUnknown> unknown;
    ASSERT_HR(S_OK, tasks->get__NewEnum(&unknown));
    ComPtr<IEnumVARIANT> e;
    ASSERT_HR(S_OK, unknown.As(&e));
    VARIANT items[4];
    for (VARIANT& v : items) ::VariantInit(&v);
    // One at a time needs no count; more than one does.
    EXPECT_HR(E_POINTER, e->Next(2, items, nullptr));
    EXPECT_HR(E_POINTER, e->Next(1, nullptr, nullptr));
    EXPECT_HR(S_OK, e->Next(1, items, nullptr));
    EXPECT_EQ(IdentityOf(a.Get()), IdentityOf(V_UNKNOWN(&items[0])));
    ::VariantClear(&items[0]);

    EXPECT_HR(S_OK, e->Skip(1));
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, e->Next(4, items, &fetched));
    ASSERT_EQ(1u, fetched);
    EXPECT_EQ(IdentityOf(c.Get()), IdentityOf(V_UNKNOWN(&items[0])));
    ::VariantClear(&items[0]);
    EXPECT_HR(S_FALSE, e->Skip(1));
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_OK, e->Next(3, items, &fetched));
    EXPECT_EQ(3u, fetched);
    for (VARIANT& v : items) ::VariantClear(&v);

    // A large request costs no more than what is there.
    EXPECT_HR(S_OK, e->Reset());
    std::vector<VARIANT> many(40);
    EXPECT_HR(S_FALSE, e->Next(0x7FFFFFFF, many.data(), &fetched));
    EXPECT_EQ(3u, fetched);
    for (VARIANT& v : many) ::VariantClear(&v);
}

}  // namespace
}  // namespace ky::test
