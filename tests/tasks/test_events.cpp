// The list and its tasks as script hosts and event sinks see them: calls by
// name through IDispatch, events through Invoke, callbacks from listeners,
// and a listener in another apartment.
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
        EXPECT_EQ(0u, events[i].namedArgs);
        EXPECT_EQ(IdentityOf(task.Get()), events[i].task);
    }
    EXPECT_EQ(std::vector<VARTYPE>{VT_DISPATCH}, events[0].types);
    // Last argument first: the flag, then the task.
    EXPECT_EQ((std::vector<VARTYPE>{VT_UI4, VT_DISPATCH}), events[1].types);
    EXPECT_EQ(ULONG(KYTUT_PROGRESS), events[1].update);
    EXPECT_EQ(std::vector<VARTYPE>{VT_DISPATCH}, events[2].types);

    // A sink built from the type library finds the same identifiers by name.
    ComPtr<ITypeLib> library;
    ASSERT_HR(S_OK, ::LoadRegTypeLib(LIBID_KyUtils, 1, 0, 0x409, &library));
    ComPtr<ITypeInfo> info;
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
        ASSERT_HR(S_OK, V_DISPATCH(&params.rgvarg[params.cArgs - 1])->QueryInterface(IID_PPV_ARGS(&task)));
        BSTR name = nullptr;
        EXPECT_HR(S_OK, task->get_Name(&name));
        LONG count = Count();
        seen.push_back(std::to_wstring(event.id) + L" " + Text(name) + L" " + std::to_wstring(count));
        ::SysFreeString(name);
        // A change made from a listener is announced in turn.
        if (event.id == 1) {
            EXPECT_HR(S_OK, task->put_Progress(0));
        }
    };
    auto task = Add(L"Nested");
    EXPECT_HR(S_OK, task->Delete());
    EXPECT_EQ((std::vector<std::wstring>{L"1 Nested 1", L"3 Nested 1", L"2 Nested 0"}), seen);
}

// Invokes a member of `object` by name, with arguments in reading order.
HRESULT CallByName(IDispatch* object, const wchar_t* name, WORD flags, std::vector<VARIANT> args, VARIANT* result,
                   HRESULT* scode = nullptr) {
    DISPID id = 0;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    if (FAILED(hr)) return hr;
    std::vector<VARIANT> reversed(args.rbegin(), args.rend());
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
    if (flags == DISPATCH_PROPERTYPUT) {
        params.rgdispidNamedArgs = &put;
        params.cNamedArgs = 1;
    }
    EXCEPINFO error{};
    hr = object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, &error, nullptr);
    if (scode) *scode = error.scode;
    ::SysFreeString(error.bstrSource);
    ::SysFreeString(error.bstrDescription);
    ::SysFreeString(error.bstrHelpFile);
    return hr;
}

DISPID IdOf(IDispatch* object, const wchar_t* name) {
    DISPID id = 0;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    EXPECT_HR(S_OK, object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
    return id;
}

TEST_F(Events, ScriptsCallTheListAndItsTasksByName) {
    ComPtr<IDispatch> list;
    ASSERT_HR(S_OK, tasks.As(&list));
    EXPECT_EQ(0x60020000, IdOf(list.Get(), L"Count"));
    EXPECT_EQ(DISPID_VALUE, IdOf(list.Get(), L"Item"));
    EXPECT_EQ(0x60020003, IdOf(list.Get(), L"Add"));
    EXPECT_EQ(0x60020004, IdOf(list.Get(), L"Remove"));

    // Scripts have no null interface pointer: null, or leaving the callback
    // out, adds a task that cannot be cancelled.
    VARIANT name, no, null, added;
    V_VT(&name) = VT_BSTR;
    V_BSTR(&name) = ::SysAllocString(L"Scripted");
    V_VT(&no) = VT_BOOL;
    V_BOOL(&no) = VARIANT_FALSE;
    V_VT(&null) = VT_NULL;
    ::VariantInit(&added);
    ASSERT_HR(S_OK, CallByName(list.Get(), L"Add", DISPATCH_METHOD, {name, no, null}, &added));
    ASSERT_EQ(VT_DISPATCH, V_VT(&added));
    IDispatch* task = V_DISPATCH(&added);
    VARIANT second;
    ::VariantInit(&second);
    ASSERT_HR(S_OK, CallByName(list.Get(), L"Add", DISPATCH_METHOD, {name, no}, &second));
    ::VariantClear(&name);

    const struct {
        const wchar_t* name;
        DISPID id;
    } members[] = {{L"Name", 0x60020000},          {L"Description", 0x60020002}, {L"Progress", 0x60020004},
                   {L"Flags", 0x60020006},         {L"ShowProgressDialog", 0x60020008},
                   {L"CanCancel", 0x60020009},     {L"Tag", 0x6002000a},         {L"Delete", 0x6002000c},
                   {L"Cancel", 0x6002000d},        {L"SetStandardAnimation", 0x6002000e},
                   {L"SetAnimation", 0x6002000f},  {L"GetAnimation", 0x60020010}};
    for (const auto& member : members) EXPECT_EQ(member.id, IdOf(task, member.name)) << Narrow(member.name);

    VARIANT value, result;
    ::VariantInit(&result);
    EXPECT_HR(S_OK, CallByName(task, L"CanCancel", DISPATCH_PROPERTYGET, {}, &result));
    EXPECT_EQ(VT_BOOL, V_VT(&result));
    EXPECT_EQ(VARIANT_FALSE, V_BOOL(&result));
    V_VT(&value) = VT_I4;
    V_I4(&value) = 75;
    EXPECT_HR(S_OK, CallByName(task, L"Progress", DISPATCH_PROPERTYPUT, {value}, nullptr));
    // A failure reaches the script as an exception carrying the result,
    // a listener's failure as well as a refused value.
    HRESULT scode = S_OK;
    V_I4(&value) = 150;
    EXPECT_HR(DISP_E_EXCEPTION, CallByName(task, L"Progress", DISPATCH_PROPERTYPUT, {value}, nullptr, &scode));
    EXPECT_HR(E_INVALIDARG, scode);
    auto sink = AdvisedSink();
    sink->result = E_ABORT;
    V_I4(&value) = 80;
    EXPECT_HR(DISP_E_EXCEPTION, CallByName(task, L"Progress", DISPATCH_PROPERTYPUT, {value}, nullptr, &scode));
    EXPECT_HR(E_ABORT, scode);
    EXPECT_HR(S_OK, CallByName(task, L"Progress", DISPATCH_PROPERTYGET, {}, &result));
    EXPECT_EQ(80, V_I4(&result));

    // Item by position and the enumerator, which JScript asks for as a method.
    V_VT(&value) = VT_BSTR;
    V_BSTR(&value) = ::SysAllocString(L"1");
    EXPECT_HR(S_OK, CallByName(list.Get(), L"Item", DISPATCH_PROPERTYGET | DISPATCH_METHOD, {value}, &result));
    ::VariantClear(&value);
    EXPECT_EQ(IdentityOf(V_DISPATCH(&second)), IdentityOf(V_DISPATCH(&result)));
    ::VariantClear(&result);
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    ASSERT_HR(S_OK, list->Invoke(DISPID_NEWENUM, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, &result,
                                 nullptr, nullptr));
    ComPtr<IEnumVARIANT> e;
    ASSERT_EQ(VT_UNKNOWN, V_VT(&result));
    EXPECT_HR(S_OK, V_UNKNOWN(&result)->QueryInterface(IID_PPV_ARGS(&e)));
    ::VariantClear(&result);

    sink->result = S_OK;
    EXPECT_HR(S_OK, CallByName(task, L"Delete", DISPATCH_METHOD, {}, nullptr));
    EXPECT_HR(S_OK, CallByName(list.Get(), L"Remove", DISPATCH_METHOD, {second}, nullptr));
    EXPECT_EQ(0, Count());
    ::VariantClear(&added);
    ::VariantClear(&second);
}

// Wine's marshaler for dispinterfaces looks the type library up for the
// neutral locale only, and the library registers itself for 0x409: without
// a neutral entry the sink's apartment cannot hand out _IKyTasksEvents (the
// list then refuses the sink with CONNECT_E_CANNOTCONNECT). A client under
// Wine adds that entry, as this one does for its own run.
class NeutralTypeLibEntry {
public:
    NeutralTypeLibEntry() {
        BSTR path = nullptr;
        if (FAILED(::QueryPathOfRegTypeLib(LIBID_KyUtils, 1, 0, 0, &path))) {
            EXPECT_HR(S_OK, ::QueryPathOfRegTypeLib(LIBID_KyUtils, 1, 0, 0x409, &path));
            std::wstring key = Key() + (sizeof(void*) == 8 ? L"\\0\\win64" : L"\\0\\win32");
            HKEY handle = nullptr;
            m_added = ::RegCreateKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &handle,
                                        nullptr) == ERROR_SUCCESS;
            if (m_added) {
                ::RegSetValueExW(handle, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(path),
                                 (::SysStringLen(path) + 1) * sizeof(wchar_t));
                ::RegCloseKey(handle);
            }
        }
        ::SysFreeString(path);
    }
    ~NeutralTypeLibEntry() {
        if (m_added) ::RegDeleteTreeW(HKEY_CLASSES_ROOT, (Key() + L"\\0").c_str());
    }

private:
    static std::wstring Key() {
        wchar_t libid[40];
        ::StringFromGUID2(LIBID_KyUtils, libid, 40);
        return std::wstring(L"TypeLib\\") + libid + L"\\1.0";
    }
    bool m_added = false;
};

TEST_F(Events, ASinkInAnotherApartmentHearsThroughAProxy) {
    NeutralTypeLibEntry entry;
    StaThread sta;
    ComPtr<EventSink> sink;
    IStream* marshaled = nullptr;
    std::vector<std::wstring> names;
    sta.Run([&] {
        sink = New<EventSink>();
        // The sink reads the task it is told about, through a proxy back
        // into the list's apartment.
        sink->onEvent = [&](const Event&, DISPPARAMS& params) {
            ComPtr<IKyTask> task;
            ASSERT_HR(S_OK, V_DISPATCH(&params.rgvarg[params.cArgs - 1])->QueryInterface(IID_PPV_ARGS(&task)));
            BSTR name = nullptr;
            EXPECT_HR(S_OK, task->get_Name(&name));
            names.push_back(Text(name));
            ::SysFreeString(name);
        };
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IUnknown, sink->Identity(), &marshaled));
    });
    ASSERT_NE(nullptr, marshaled);
    ComPtr<IUnknown> proxy;
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&proxy)));
    DWORD cookie = 0;
    // The connection point asks the proxy for the event interface, which
    // the registered type library makes remotable.
    ASSERT_HR(S_OK, point->Advise(proxy.Get(), &cookie));

    auto task = Add(L"Remote");
    EXPECT_HR(S_OK, task->put_Flags(KYTF_ANIMATION_STOPPED));
    sink->result = E_ABORT;  // a failure crosses back
    EXPECT_HR(E_ABORT, task->Delete());

    auto events = sink->Events();
    ASSERT_EQ(3u, events.size());
    for (const Event& event : events) EXPECT_EQ(sta.ThreadId(), event.calledOn);
    EXPECT_EQ(1, events[0].id);
    EXPECT_EQ(3, events[1].id);
    EXPECT_EQ(2, events[2].id);
    EXPECT_EQ(std::vector<VARTYPE>{VT_DISPATCH}, events[0].types);
    EXPECT_EQ((std::vector<VARTYPE>{VT_UI4, VT_DISPATCH}), events[1].types);
    EXPECT_EQ(ULONG(KYTUT_FLAGS), events[1].update);
    EXPECT_EQ((std::vector<std::wstring>{L"Remote", L"Remote", L"Remote"}), names);

    EXPECT_HR(S_OK, point->Unadvise(cookie));
    proxy.Reset();
    sta.Run([&] { sink.Reset(); });
}

}  // namespace
}  // namespace ky::test
