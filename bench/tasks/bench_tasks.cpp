// What announcing a task's change costs: a Progress put that fires OnUpdate
// to one dispatch sink, next to calling the sink's Invoke directly with the
// same arguments.
#include <windows.h>
#include <objbase.h>
#include <ocidl.h>
#include <oleauto.h>

#include <cstdio>

#include "bench.h"
#include "com/module.h"
#include "com/object.h"
#include "kyutils.h"

namespace {

class BenchModule : public com::Module {};
BenchModule g_module;

class Sink : public com::Object<Sink, IDispatch> {
public:
    HRESULT QueryOther(REFIID riid, void** ppv) {
        if (!IsEqualIID(riid, DIID__IKyTasksEvents)) return E_NOINTERFACE;
        *ppv = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override {
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*, UINT*) override {
        m_calls += id + params->cArgs;
        return S_OK;
    }

private:
    volatile ULONG64 m_calls = 0;
};

constexpr int kUpdates = 100000;

}  // namespace

int main() {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    {
        com::ComPtr<IKyTasks> tasks;
        HRESULT hr = ::CoCreateInstance(CLSID_KyTasks, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&tasks));
        if (FAILED(hr)) {
            std::printf("cannot create the task list: 0x%08lX\n", static_cast<unsigned long>(hr));
            return 1;
        }
        com::ComPtr<IConnectionPointContainer> container;
        com::ComPtr<IConnectionPoint> point;
        tasks.As(&container);
        container->FindConnectionPoint(DIID__IKyTasksEvents, &point);
        com::ComPtr<Sink> sink;
        Sink::Make(sink);
        DWORD cookie = 0;
        point->Advise(sink->Identity(), &cookie);
        BSTR name = ::SysAllocString(L"Benchmark");
        com::ComPtr<IKyTask> task;
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
        ky::bench::Report("Progress put firing OnUpdate, 1 sink", fired, "direct Invoke on the sink", direct,
                          kUpdates);

        point->Unadvise(cookie);
        task->Delete();
    }
    ::CoUninitialize();
    return 0;
}
