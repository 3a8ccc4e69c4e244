// What the task list's test programs share: a dispatch sink that records
// the events it is sent, a cancel callback, and a fixture that leaves the
// process-wide task list empty.
#pragma once

#include <windows.h>
#include <ocidl.h>
#include <olectl.h>
#include <oleauto.h>

#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "com/object.h"
#include "com/raii.h"
#include "eventsinkbase.h"
#include "kytest.h"

namespace ky::test {

using Microsoft::WRL::ComPtr;

// One Invoke call as the sink saw it.
struct Event {
    DISPID id;
    WORD flags;
    LCID lcid;
    bool nullIid;
    std::vector<VARTYPE> types;  // in DISPPARAMS order (last argument first)
    IUnknown* task;              // identity of the VT_DISPATCH argument, for comparison only
    ULONG update;                // the VT_UI4 argument of OnUpdate
    DWORD calledOn;
};

// A listener as script engines and class wizards make them: an IDispatch
// that answers the event interface's identifier.
class EventSink : public EventSinkBase<EventSink> {
public:
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* retval,
                        EXCEPINFO*, UINT*) override {
        Event event{id, flags, lcid, IsEqualIID(riid, IID_NULL) != FALSE, {}, nullptr, 0, ::GetCurrentThreadId()};
        for (UINT i = 0; i < params->cArgs; ++i) {
            const VARIANT& arg = params->rgvarg[i];
            event.types.push_back(V_VT(&arg));
            if (V_VT(&arg) == VT_UI4) event.update = V_UI4(&arg);
            if (V_VT(&arg) == VT_DISPATCH) {
                ComPtr<IUnknown> identity;
                V_DISPATCH(&arg)->QueryInterface(IID_PPV_ARGS(&identity));
                event.task = identity.Get();
            }
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_events.push_back(event);
        }
        if (retval) ::VariantInit(retval);
        if (onEvent) onEvent(event, *params);
        return result;
    }
    std::vector<Event> Events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }
    size_t Count() { return Events().size(); }

    HRESULT result = S_OK;
    std::function<void(const Event&, DISPPARAMS&)> onEvent;

private:
    std::mutex m_mutex;
    std::vector<Event> m_events;
};

// The callback of the operation behind a task.
class Canceller : public com::Object<Canceller, ICancelAsyncOperation> {
public:
    STDMETHODIMP get_Status(ULONG* status) override {
        *status = 0;
        return S_OK;
    }
    STDMETHODIMP Cancel() override {
        ++cancels;
        return result;
    }
    std::atomic<int> cancels{0};
    HRESULT result = S_OK;
};

template <class T>
ComPtr<T> New() {
    ComPtr<T> object;
    EXPECT_HR(S_OK, T::Make(object));
    return object;
}

inline IUnknown* IdentityOf(IUnknown* object) {
    ComPtr<IUnknown> identity;
    object->QueryInterface(IID_PPV_ARGS(&identity));
    return identity.Get();
}

inline std::wstring Text(BSTR text) { return text ? std::wstring(text, ::SysStringLen(text)) : L"(null)"; }

inline VARIANT Index(LONG value) {
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = value;
    return v;
}

// The task list is one object for the whole process: the fixture takes away
// every task and listener a test leaves behind.
class TasksTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyTasks, nullptr, CLSCTX_INPROC_SERVER, IID_IKyTasks, &tasks));
        ComPtr<IConnectionPointContainer> container;
        ASSERT_HR(S_OK, tasks.As(&container));
        ASSERT_HR(S_OK, container->FindConnectionPoint(DIID__IKyTasksEvents, &point));
    }
    void TearDown() override {
        for (DWORD cookie : m_cookies) point->Unadvise(cookie);
        ComPtr<IKyTask> first;
        while (SUCCEEDED(tasks->get_Item(Index(0), &first)) && SUCCEEDED(tasks->Remove(first.Get()))) {
        }
        point.Reset();
        tasks.Reset();
    }

    ComPtr<IKyTask> Add(const wchar_t* name, VARIANT_BOOL show = VARIANT_FALSE,
                        ICancelAsyncOperation* cancel = nullptr) {
        ComPtr<IKyTask> task;
        EXPECT_HR(S_OK, tasks->Add(com::Bstr(name), show, cancel, &task));
        return task;
    }
    DWORD Advise(EventSink* sink) {
        DWORD cookie = 0;
        EXPECT_HR(S_OK, point->Advise(sink->Identity(), &cookie));
        m_cookies.push_back(cookie);
        return cookie;
    }
    ComPtr<EventSink> AdvisedSink() {
        auto sink = New<EventSink>();
        Advise(sink.Get());
        return sink;
    }
    IKyTask* Item(VARIANT index, HRESULT expected = S_OK) {
        ComPtr<IKyTask> task;
        EXPECT_HR(expected, tasks->get_Item(index, &task));
        return task.Get();  // for comparison: the list holds it
    }
    LONG Count() {
        LONG count = -1;
        EXPECT_HR(S_OK, tasks->get_Count(&count));
        return count;
    }

    ComPtr<IKyTasks> tasks;
    ComPtr<IConnectionPoint> point;

private:
    std::vector<DWORD> m_cookies;
};

}  // namespace ky::test
