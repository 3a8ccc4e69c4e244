// Shared by the task list's test programs: a dispatch sink that records the
// events it is sent, a cancel callback, and a fixture that leaves the
// process-wide task list empty.
#pragma once

#include <ocidl.h>
#include <olectl.h>
#include <wrl/client.h>

#include <atomic>
#include <cwchar>
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

inline std::wstring Text(BSTR text) { return text ? std::wstring(text, ::SysStringLen(text)) : L"(null)"; }

inline std::wstring NameOf(IKyTask* task) {
    com::Bstr name;
    EXPECT_HR(S_OK, task->get_Name(name.Out()));
    return Text(name);
}

struct Event {
    DISPID id;
    std::wstring call;  // "3(ui4 4, Copy)": the DISPID and the arguments, last first, a task by its name
    DWORD calledOn;
};

// A listener as script engines and class wizards make them: an IDispatch
// that answers the event interface's identifier and, as they do, takes
// only plain method calls.
class EventSink : public EventSinkBase<EventSink> {
public:
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params, VARIANT* retval, EXCEPINFO*,
                        UINT*) override {
        if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
        if (flags != DISPATCH_METHOD || params->cNamedArgs) return DISP_E_MEMBERNOTFOUND;
        Event event{id, std::to_wstring(id) + L"(", ::GetCurrentThreadId()};
        for (UINT i = 0; i < params->cArgs; ++i) {
            const VARIANT& arg = params->rgvarg[i];
            ComPtr<IKyTask> task;
            if (i) event.call += L", ";
            if (V_VT(&arg) == VT_UI4) event.call += L"ui4 " + std::to_wstring(V_UI4(&arg));
            else if (V_VT(&arg) == VT_DISPATCH && SUCCEEDED(V_DISPATCH(&arg)->QueryInterface(IID_PPV_ARGS(&task))))
                event.call += NameOf(task.Get());
            else event.call += L"vt " + std::to_wstring(V_VT(&arg));
        }
        event.call += L")";
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
    std::vector<std::wstring> Calls() {
        std::vector<std::wstring> calls;
        for (const Event& event : Events()) calls.push_back(event.call);
        return calls;
    }
    size_t Count() { return Events().size(); }

    HRESULT result = S_OK;
    std::function<void(const Event&, DISPPARAMS&)> onEvent;

private:
    std::mutex m_mutex;
    std::vector<Event> m_events;
};

class Canceller : public com::Object<Canceller, ICancelAsyncOperation> {
public:
    STDMETHODIMP get_Status(ULONG* status) override { return *status = 0, S_OK; }
    STDMETHODIMP Cancel() override { return ++cancels, result; }
    std::atomic<int> cancels{0};
    HRESULT result = S_OK;
};

template <class T>
ComPtr<T> New() {
    ComPtr<T> object;
    EXPECT_HR(S_OK, T::Make(object));
    return object;
}

// What a task reads: "name, description, progress, flags, animation module,
// resource, tag".
inline std::wstring State(IKyTask* task) {
    com::Bstr description, module;
    int progress = 0, tag = 0;
    ULONG flags = 0;
    UINT resource = 0;
    EXPECT_HR(S_OK, task->get_Description(description.Out()));
    EXPECT_HR(S_OK, task->get_Progress(&progress));
    EXPECT_HR(S_OK, task->get_Flags(&flags));
    EXPECT_HR(S_OK, task->GetAnimation(module.Out(), &resource));
    EXPECT_HR(S_OK, task->get_Tag(&tag));
    wchar_t text[200];
    std::swprintf(text, 200, L", %ls, %d, %#lx, %ls, %d, %d", Text(description).c_str(), progress, flags,
                  Text(module).c_str(), int(resource), tag);
    return NameOf(task) + text;
}

// The task list is one object for the whole process: the fixture takes away
// every task and listener a test leaves behind.
class TasksTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyTasks, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&tasks)));
        ComPtr<IConnectionPointContainer> container;
        ASSERT_HR(S_OK, tasks.As(&container));
        ASSERT_HR(S_OK, container->FindConnectionPoint(DIID__IKyTasksEvents, &point));
    }
    void TearDown() override {
        for (DWORD cookie : m_cookies) point->Unadvise(cookie);
        ComPtr<IKyTask> first;
        while (SUCCEEDED(tasks->get_Item(Number(0), &first)) && SUCCEEDED(tasks->Remove(first.Get()))) {
        }
    }

    ComPtr<IKyTask> Add(const wchar_t* name, VARIANT_BOOL show = 0, ICancelAsyncOperation* cancel = nullptr) {
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
    std::wstring Item(VARIANT index, HRESULT expected = S_OK) {
        ComPtr<IKyTask> task;
        EXPECT_HR(expected, tasks->get_Item(index, &task));
        return task ? NameOf(task.Get()) : L"";
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
