#include <algorithm>
#include <vector>

#include "com/enumerator.h"
#include "com/guard.h"
#include "tasks/tasks.h"

namespace ky {

namespace {

// Typed enumeration over a snapshot of the list.
using TaskEnumerator = com::SnapshotEnumerator<IEnumKyTask, IKyTask*>;

// What _NewEnum hands out: IEnumVARIANT for script hosts over an inner
// IEnumKyTask that owns the snapshot; items come out as VT_UNKNOWN.
class CTasksEnumVariant : public com::Object<CTasksEnumVariant, IEnumVARIANT> {
public:
    explicit CTasksEnumVariant(com::ComPtr<IEnumKyTask> inner) : m_inner(std::move(inner)) {}

    static HRESULT Create(com::ComPtr<IEnumKyTask> inner, REFIID riid, void** ppv) {
        com::ComPtr<CTasksEnumVariant> outer;
        HRESULT hr = Make(outer, std::move(inner));
        if (FAILED(hr)) return hr;
        return outer->QueryInterface(riid, ppv);
    }

    STDMETHODIMP Next(ULONG celt, VARIANT* rgVar, ULONG* pceltFetched) override {
        com::Lock lock(m_lock);
        if (!m_inner) return E_UNEXPECTED;
        if (!rgVar) return E_POINTER;
        if (celt != 1 && !pceltFetched) return E_POINTER;
        // Fetched in small batches, so that a large count costs no more
        // memory than the items that are really there.
        constexpr ULONG kBatch = 16;
        IKyTask* tasks[kBatch];
        ULONG total = 0;
        while (total < celt) {
            ULONG wanted = std::min(kBatch, celt - total);
            ULONG fetched = 0;
            HRESULT hr = m_inner->Next(wanted, tasks, &fetched);
            if (FAILED(hr)) return Fail(rgVar, total, hr);
            hr = S_OK;
            for (ULONG i = 0; i < fetched; ++i) {
                VariantInit(&rgVar[total + i]);
                if (SUCCEEDED(hr)) {
                    hr = tasks[i]->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&V_UNKNOWN(&rgVar[total + i])));
                    if (SUCCEEDED(hr)) V_VT(&rgVar[total + i]) = VT_UNKNOWN;
                }
                tasks[i]->Release();
            }
            if (FAILED(hr)) return Fail(rgVar, total + fetched, hr);
            total += fetched;
            if (fetched < wanted) break;
        }
        if (pceltFetched) *pceltFetched = total;
        return total < celt ? S_FALSE : S_OK;
    }

    STDMETHODIMP Skip(ULONG celt) override { return m_inner ? m_inner->Skip(celt) : E_UNEXPECTED; }
    STDMETHODIMP Reset() override { return m_inner ? m_inner->Reset() : E_UNEXPECTED; }

    STDMETHODIMP Clone(IEnumVARIANT** ppEnum) override {
        if (!ppEnum) return E_POINTER;
        *ppEnum = nullptr;
        if (!m_inner) return E_UNEXPECTED;
        com::ComPtr<IEnumKyTask> inner;
        HRESULT hr = m_inner->Clone(&inner);
        if (FAILED(hr)) return hr;
        return Create(std::move(inner), IID_IEnumVARIANT, reinterpret_cast<void**>(ppEnum));
    }

private:
    static HRESULT Fail(VARIANT* rgVar, ULONG filled, HRESULT hr) {
        for (ULONG i = 0; i < filled; ++i) VariantClear(&rgVar[i]);
        return hr;
    }

    com::CriticalSection m_lock;
    com::ComPtr<IEnumKyTask> m_inner;
};

}  // namespace

CKyTasks::CKyTasks() : m_events(this, m_lock, DIID__IKyTasksEvents) { AddConnectionPoint(m_events); }

STDMETHODIMP CKyTasks::Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                              EXCEPINFO* excepInfo, UINT* argErr) {
    using Base = com::DispatchImpl<IKyTasks>;
    // A script cannot pass a null interface pointer: null, an empty value or
    // a left-out argument stand for "no cancel callback" in Add.
    if (id == kAddDispId && params && params->cNamedArgs == 0 && (params->cArgs == 2 || params->cArgs == 3)) {
        const VARIANT* callback = params->cArgs == 3 ? &params->rgvarg[0] : nullptr;
        VARTYPE type = callback ? V_VT(callback) : static_cast<VARTYPE>(VT_EMPTY);
        bool missing = type == VT_ERROR && V_ERROR(callback) == DISP_E_PARAMNOTFOUND;
        if (type == VT_EMPTY || type == VT_NULL || missing) {
            // Arguments are in reverse order: the callback comes first.
            VARIANT args[3];
            VariantInit(&args[0]);
            V_VT(&args[0]) = VT_UNKNOWN;
            V_UNKNOWN(&args[0]) = nullptr;
            args[1] = params->rgvarg[params->cArgs - 2];
            args[2] = params->rgvarg[params->cArgs - 1];
            DISPPARAMS completed{args, nullptr, 3, 0};
            return Base::Invoke(id, riid, lcid, flags, &completed, result, excepInfo, argErr);
        }
    }
    return Base::Invoke(id, riid, lcid, flags, params, result, excepInfo, argErr);
}

STDMETHODIMP CKyTasks::get_Count(LONG* pnCount) {
    if (!pnCount) return E_POINTER;
    com::Lock lock(m_lock);
    *pnCount = static_cast<LONG>(m_tasks.size());
    return S_OK;
}

STDMETHODIMP CKyTasks::get_Item(VARIANT index, IKyTask** ppTask) {
    if (!ppTask) return E_POINTER;
    *ppTask = nullptr;
    // Positions only: a name is not a key, so "abc" fails to convert.
    com::Variant number;
    HRESULT hr = ::VariantCopyInd(&number, &index);
    if (FAILED(hr)) return hr;
    if (V_VT(&number) == VT_EMPTY) return E_INVALIDARG;
    hr = number.ChangeType(VT_I4);
    if (FAILED(hr)) return hr;
    LONG position = V_I4(&number);
    com::Lock lock(m_lock);
    if (position < 0 || static_cast<size_t>(position) >= m_tasks.size()) return E_INVALIDARG;
    auto task = m_tasks.begin();
    std::advance(task, position);
    return (*task)->QueryInterface(IID_IKyTask, reinterpret_cast<void**>(ppTask));
}

STDMETHODIMP CKyTasks::get__NewEnum(IUnknown** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    std::vector<IKyTask*> snapshot;
    HRESULT hr = com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        snapshot.reserve(m_tasks.size());
        for (const auto& task : m_tasks) {
            IKyTask* item = nullptr;
            if (SUCCEEDED(task->QueryInterface(IID_IKyTask, reinterpret_cast<void**>(&item)))) snapshot.push_back(item);
        }
        return S_OK;
    });
    if (FAILED(hr)) return E_OUTOFMEMORY;
    com::ComPtr<TaskEnumerator> inner;
    hr = TaskEnumerator::Make(inner, std::move(snapshot));
    if (FAILED(hr)) return hr;
    return CTasksEnumVariant::Create(std::move(inner), IID_IUnknown, reinterpret_cast<void**>(ppEnum));
}

STDMETHODIMP CKyTasks::Add(BSTR bstrName, VARIANT_BOOL vbShowProgressDialog,
                           ICancelAsyncOperation* pCancelAsyncOperation, IKyTask** ppTask) {
    if (!ppTask) return E_POINTER;
    *ppTask = nullptr;
    if (::SysStringLen(bstrName) == 0) return E_INVALIDARG;
    com::ComPtr<CKyTask> task;
    HRESULT hr = CKyTask::Make(task);
    if (FAILED(hr)) return hr;
    // The task holds the list from here on; the reference goes with the task.
    hr = task->Link(this, bstrName, vbShowProgressDialog, pCancelAsyncOperation);
    if (FAILED(hr)) return hr;
    com::ComPtr<IKyTask> added;
    hr = com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        m_tasks.emplace_back(task->Identity());
        HRESULT queried = m_tasks.back().As(&added);
        if (FAILED(queried)) m_tasks.pop_back();
        return queried;
    });
    if (FAILED(hr)) return hr;
    *ppTask = added.Detach();
    // The task stays added even when a listener fails.
    return FireTaskEvent(kOnAdd, *ppTask, nullptr);
}

STDMETHODIMP CKyTasks::Remove(IKyTask* pTask) {
    if (!pTask) return E_POINTER;
    com::ComPtr<IUnknown> identity;
    if (FAILED(pTask->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(identity.GetAddressOf()))))
        return E_UNEXPECTED;
    com::ComPtr<IUnknown> removed;
    {
        com::Lock lock(m_lock);
        // (ComPtr has no equality of its own: compare the pointers.)
        auto found = std::find_if(m_tasks.begin(), m_tasks.end(),
                                  [&](const com::ComPtr<IUnknown>& task) { return task.Get() == identity.Get(); });
        if (found == m_tasks.end()) return E_UNEXPECTED;
        removed = std::move(*found);
        m_tasks.erase(found);
    }
    removed.Reset();  // the list's reference, released outside the lock
    return FireTaskEvent(kOnRemove, pTask, nullptr);
}

HRESULT CKyTasks::FireOnUpdate(IKyTask* task, KYTASKUPDATETYPE what) {
    ULONG flags = what;
    return FireTaskEvent(kOnUpdate, task, &flags);
}

// Arguments go in IDispatch order, last first: the optional flags, then the
// task with a reference of its own.
HRESULT CKyTasks::FireTaskEvent(DISPID id, IKyTask* task, const ULONG* flags) {
    VARIANT args[2];
    UINT count = 0;
    if (flags) {
        VariantInit(&args[count]);
        V_VT(&args[count]) = VT_UI4;
        V_UI4(&args[count]) = *flags;
        ++count;
    }
    VariantInit(&args[count]);
    V_VT(&args[count]) = VT_DISPATCH;
    V_DISPATCH(&args[count]) = task;
    task->AddRef();
    ++count;
    HRESULT hr = m_events.FireDispatch(id, args, count);
    for (UINT i = 0; i < count; ++i) VariantClear(&args[i]);
    return hr;
}

}  // namespace ky
