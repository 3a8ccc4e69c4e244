// The list as script hosts and event sinks see it: events through Invoke,
// calls by name, listeners calling back, and a listener in another apartment.
#include "taskstest.h"

namespace ky::test {
namespace {

using Events = TasksTest;

TEST_F(Events, ADispatchSinkHearsEachEventWithItsDispidAndArguments) {
    auto sink = AdvisedSink();
    auto task = Add(L"Download");
    task->put_Progress(5);
    tasks->Remove(task.Get());
    auto events = sink->Events();
    ASSERT_EQ(3u, events.size());
    const DISPID ids[] = {1, 3, 2};
    for (size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(ids[i], events[i].id);
        EXPECT_EQ(DISPATCH_METHOD, events[i].flags);
        EXPECT_EQ(LCID(LOCALE_USER_DEFAULT), events[i].lcid);
        EXPECT_TRUE(events[i].nullIid);
        EXPECT_EQ(IdentityOf(task.Get()), events[i].task);
    }
    EXPECT_EQ(std::vector<VARTYPE>{VT_DISPATCH}, events[0].types);
    EXPECT_EQ((std::vector<VARTYPE>{VT_UI4, VT_DISPATCH}), events[1].types);  // last argument first
    EXPECT_EQ(ULONG(KYTUT_PROGRESS), events[1].update);
    EXPECT_EQ(std::vector<VARTYPE>{VT_DISPATCH}, events[2].types);

    // A sink built from the type library finds the same identifiers by name.
    ComPtr<ITypeLib> library;
    ComPtr<ITypeInfo> info;
    ASSERT_HR(S_OK, ::LoadRegTypeLib(LIBID_KyUtils, 1, 0, 0x409, &library));
    ASSERT_HR(S_OK, library->GetTypeInfoOfGuid(DIID__IKyTasksEvents, &info));
    const wchar_t* names[] = {L"OnAdd", L"OnRemove", L"OnUpdate"};
    for (DISPID expected = 1; expected <= 3; ++expected) {
        LPOLESTR name = const_cast<LPOLESTR>(names[expected - 1]);
        MEMBERID id = 0;
        EXPECT_HR(S_OK, info->GetIDsOfNames(&name, 1, &id));
        EXPECT_EQ(expected, id);
    }
}

TEST_F(Events, ListenersMayCallBackIntoTheListAndTheTask) {
    auto sink = AdvisedSink();
    std::vector<std::wstring> seen;
    sink->onEvent = [&](const Event& event, DISPPARAMS& params) {
        ComPtr<IKyTask> task;
        V_DISPATCH(&params.rgvarg[params.cArgs - 1])->QueryInterface(IID_PPV_ARGS(&task));
        BSTR name = nullptr;
        task->get_Name(&name);
        seen.push_back(std::to_wstring(event.id) + L" " + Text(name) + L" " + std::to_wstring(Count()));
        ::SysFreeString(name);
        if (event.id == 1) task->put_Progress(0);  // announced in turn
    };
    EXPECT_HR(S_OK, Add(L"Nested")->Delete());
    EXPECT_EQ((std::vector<std::wstring>{L"1 Nested 1", L"3 Nested 1", L"2 Nested 0"}), seen);
}

DISPID IdOf(IDispatch* object, const wchar_t* name) {
    DISPID id = 0;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    EXPECT_HR(S_OK, object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
    return id;
}

HRESULT Invoke(IDispatch* object, DISPID id, WORD flags, std::vector<VARIANT> reversedArgs, VARIANT* result,
               HRESULT* scode = nullptr) {
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS params{reversedArgs.data(), flags == DISPATCH_PROPERTYPUT ? &put : nullptr,
                      UINT(reversedArgs.size()), flags == DISPATCH_PROPERTYPUT ? 1u : 0u};
    EXCEPINFO error{};
    HRESULT hr = object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, &error, nullptr);
    if (scode) *scode = error.scode;
    ::SysFreeString(error.bstrSource);
    ::SysFreeString(error.bstrDescription);
    ::SysFreeString(error.bstrHelpFile);
    return hr;
}

TEST_F(Events, ScriptsCallTheListAndItsTasksByName) {
    ComPtr<IDispatch> list;
    ASSERT_HR(S_OK, tasks.As(&list));
    const std::pair<const wchar_t*, DISPID> listMembers[] = {
        {L"Count", 0x60020000}, {L"Item", DISPID_VALUE}, {L"Add", 0x60020003}, {L"Remove", 0x60020004}};
    for (const auto& member : listMembers) EXPECT_EQ(member.second, IdOf(list.Get(), member.first));

    // Scripts have no null interface pointer: null, or leaving the callback
    // out, adds a task that cannot be cancelled.
    com::Variant name, task, second, result;
    V_VT(&name) = VT_BSTR;
    V_BSTR(&name) = ::SysAllocString(L"Scripted");
    VARIANT no, null;
    V_VT(&no) = VT_BOOL;
    V_BOOL(&no) = VARIANT_FALSE;
    V_VT(&null) = VT_NULL;
    ASSERT_HR(S_OK, Invoke(list.Get(), 0x60020003, DISPATCH_METHOD, {null, no, name}, &task));
    ASSERT_HR(S_OK, Invoke(list.Get(), 0x60020003, DISPATCH_METHOD, {no, name}, &second));
    ASSERT_EQ(VT_DISPATCH, V_VT(&task));
    IDispatch* added = V_DISPATCH(&task);

    const std::pair<const wchar_t*, DISPID> taskMembers[] = {
        {L"Name", 0x60020000},         {L"Description", 0x60020002},  {L"Progress", 0x60020004},
        {L"Flags", 0x60020006},        {L"ShowProgressDialog", 0x60020008}, {L"CanCancel", 0x60020009},
        {L"Tag", 0x6002000a},          {L"Delete", 0x6002000c},       {L"Cancel", 0x6002000d},
        {L"SetStandardAnimation", 0x6002000e}, {L"SetAnimation", 0x6002000f}, {L"GetAnimation", 0x60020010}};
    for (const auto& member : taskMembers) EXPECT_EQ(member.second, IdOf(added, member.first));

    // A failure reaches the script as an exception carrying the result, a
    // listener's failure as well as a refused value; the first is stored.
    auto sink = AdvisedSink();
    sink->result = E_ABORT;
    HRESULT scode = S_OK;
    VARIANT value = Index(150);
    EXPECT_HR(DISP_E_EXCEPTION, Invoke(added, 0x60020004, DISPATCH_PROPERTYPUT, {value}, nullptr, &scode));
    EXPECT_HR(E_INVALIDARG, scode);
    value = Index(80);
    EXPECT_HR(DISP_E_EXCEPTION, Invoke(added, 0x60020004, DISPATCH_PROPERTYPUT, {value}, nullptr, &scode));
    EXPECT_HR(E_ABORT, scode);
    EXPECT_HR(S_OK, Invoke(added, 0x60020004, DISPATCH_PROPERTYGET, {}, &result));
    EXPECT_EQ(80, V_I4(&result));
    sink->result = S_OK;

    // JScript asks for the enumerator as a method.
    EXPECT_HR(S_OK, Invoke(list.Get(), DISPID_NEWENUM, DISPATCH_METHOD, {}, &result));
    ComPtr<IEnumVARIANT> e;
    EXPECT_HR(S_OK, V_UNKNOWN(&result)->QueryInterface(IID_PPV_ARGS(&e)));
    EXPECT_HR(S_OK, Invoke(list.Get(), 0x60020004, DISPATCH_METHOD, {second}, nullptr));
    EXPECT_EQ(1, Count());
}

TEST_F(Events, ASinkInAnotherApartmentHearsThroughAProxy) {
    StaThread sta;
    ComPtr<EventSink> sink;
    IStream* stream = nullptr;
    std::vector<std::wstring> names;
    sta.Run([&] {
        sink = New<EventSink>();
        // The sink reads the task it is told about, through a proxy back
        // into the list's apartment.
        sink->onEvent = [&](const Event&, DISPPARAMS& params) {
            ComPtr<IKyTask> task;
            V_DISPATCH(&params.rgvarg[params.cArgs - 1])->QueryInterface(IID_PPV_ARGS(&task));
            BSTR name = nullptr;
            EXPECT_HR(S_OK, task->get_Name(&name));
            names.push_back(Text(name));
            ::SysFreeString(name);
        };
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
    auto events = sink->Events();
    ASSERT_EQ(3u, events.size());
    for (const Event& event : events) EXPECT_EQ(sta.ThreadId(), event.calledOn);
    EXPECT_EQ((std::vector<VARTYPE>{VT_UI4, VT_DISPATCH}), events[1].types);
    EXPECT_EQ(ULONG(KYTUT_FLAGS), events[1].update);
    EXPECT_EQ(2, events[2].id);
    EXPECT_EQ((std::vector<std::wstring>{L"Remote", L"Remote", L"Remote"}), names);

    EXPECT_HR(S_OK, point->Unadvise(cookie));
    proxy.Reset();
    sta.Run([&] { sink.Reset(); });
}

}  // namespace
}  // namespace ky::test
