// What delivery costs. Log per message, delivered at once and held back on
// a locked thread, to one and to four listeners, next to what a caller pays
// to convert the message and call the same listeners itself; and a task's
// Progress put, which fires OnUpdate to one dispatch sink, next to calling
// the sink's Invoke directly with the same arguments.
#include <windows.h>
#include <objbase.h>
#include <ocidl.h>
#include <oleauto.h>

#include <cstdio>
#include <vector>

#include "bench.h"
#include "com/module.h"
#include "com/object.h"
#include "eventsinkbase.h"
#include "kyutils.h"

namespace {

using com::ComPtr;

class BenchModule : public com::Module {};
BenchModule g_module;

class Listener : public com::Object<Listener, _IKyLoggerEvents> {
public:
    STDMETHODIMP OnMessage(ULONG, KYEVENTTYPES, BSTR text, VARIANT*, ULONG) override {
        m_characters += ::SysStringLen(text);
        return S_OK;
    }

private:
    volatile ULONG64 m_characters = 0;
};

class Sink : public ky::test::EventSinkBase<Sink> {
public:
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*, UINT*) override {
        m_calls += id + params->cArgs;
        return S_OK;
    }

private:
    volatile ULONG64 m_calls = 0;
};

constexpr int kMessages = 64000;  // a multiple of 16: locked runs end on a flush
constexpr int kUpdates = 100000;
constexpr ULONG kChannel = 1;

void MeasureLog(IKyLogger* logger, int listenerCount, bool locked) {
    std::vector<ComPtr<Listener>> listeners(listenerCount);
    std::vector<ULONG> cookies;
    for (auto& listener : listeners) {
        Listener::Make(listener);
        ULONG cookie = 0;
        logger->LoggerAdvise(listener.Get(), &cookie);
        cookies.push_back(cookie);
    }
    VARIANT message;
    V_VT(&message) = VT_BSTR;
    V_BSTR(&message) = ::SysAllocString(L"Search of cn=Users,dc=example,dc=com done");
    DWORD thread = ::GetCurrentThreadId();

    double logged = ky::bench::Seconds([&] {
        if (locked) logger->LockThreadOutput();
        for (int i = 0; i < kMessages; ++i) logger->Log(kChannel, LET_TRACE, &message, nullptr);
        if (locked) logger->UnlockThreadOutput();
    });
    // The caller's own way: copy, convert, call every listener.
    double direct = ky::bench::Seconds([&] {
        for (int i = 0; i < kMessages; ++i) {
            VARIANT text;
            ::VariantInit(&text);
            ::VariantCopy(&text, &message);
            ::VariantChangeType(&text, &text, 0, VT_BSTR);
            for (auto& listener : listeners) listener->OnMessage(kChannel, LET_TRACE, V_BSTR(&text), nullptr, thread);
            ::VariantClear(&text);
        }
    });
    char what[64], baseline[64];
    const char* plural = listenerCount > 1 ? "s" : "";
    std::snprintf(what, sizeof what, "Log, %d listener%s, %s", listenerCount, plural,
                  locked ? "thread locked" : "at once");
    std::snprintf(baseline, sizeof baseline, "convert + %d direct call%s", listenerCount, plural);
    ky::bench::Report(what, logged, baseline, direct, kMessages);

    for (ULONG cookie : cookies) logger->LoggerUnadvise(cookie);
    ::VariantClear(&message);
}

HRESULT BenchLogger() {
    ComPtr<IKyLogger> logger;
    HRESULT hr = ::CoCreateInstance(CLSID_KyLogger, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&logger));
    if (FAILED(hr)) return hr;
    BSTR name = ::SysAllocString(L"Benchmark");
    logger->RegisterChannel(kChannel, name, LET_TRACE);
    ::SysFreeString(name);
    for (int listeners : {1, 4})
        for (bool locked : {false, true}) MeasureLog(logger.Get(), listeners, locked);
    return logger->RevokeChannel(kChannel);
}

HRESULT BenchTasks() {
    ComPtr<IKyTasks> tasks;
    HRESULT hr = ::CoCreateInstance(CLSID_KyTasks, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&tasks));
    if (FAILED(hr)) return hr;
    ComPtr<IConnectionPointContainer> container;
    ComPtr<IConnectionPoint> point;
    tasks.As(&container);
    container->FindConnectionPoint(DIID__IKyTasksEvents, &point);
    ComPtr<Sink> sink;
    Sink::Make(sink);
    DWORD cookie = 0;
    point->Advise(sink->Identity(), &cookie);
    BSTR name = ::SysAllocString(L"Benchmark");
    ComPtr<IKyTask> task;
    tasks->Add(name, VARIANT_FALSE, nullptr, &task);
    ::SysFreeString(name);

    double fired = ky::bench::Seconds([&] {
        for (int i = 0; i < kUpdates; ++i) task->put_Progress(i % 101);
    });
    double direct = ky::bench::Seconds([&] {
        for (int i = 0; i < kUpdates; ++i) {
            VARIANT args[2];
            V_VT(&args[0]) = VT_UI4;
            V_UI4(&args[0]) = KYTUT_PROGRESS;
            V_VT(&args[1]) = VT_DISPATCH;
            V_DISPATCH(&args[1]) = task.Get();
            task->AddRef();
            DISPPARAMS params{args, nullptr, 2, 0};
            VARIANT result;
            ::VariantInit(&result);
            sink->Invoke(3, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, &result, nullptr, nullptr);
            ::VariantClear(&result);
            ::VariantClear(&args[1]);
        }
    });
    ky::bench::Report("Progress put firing OnUpdate, 1 sink", fired, "direct Invoke on the sink", direct, kUpdates);
    point->Unadvise(cookie);
    return task->Delete();
}

}  // namespace

int main() {
    // Both objects live on the main single-threaded apartment.
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    HRESULT hr = BenchLogger();
    if (SUCCEEDED(hr)) hr = BenchTasks();
    ::CoUninitialize();
    if (FAILED(hr)) std::printf("benchmark failed: 0x%08lX\n", static_cast<unsigned long>(hr));
    return FAILED(hr) ? 1 : 0;
}
