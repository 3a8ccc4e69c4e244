// Task tracking: the process-wide list of long-running operations and the
// task objects it hands out. Every addition, removal and visible change is
// announced to the list's listeners through _IKyTasksEvents.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include <list>

#include "com/connectionpoint.h"
#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"

namespace ky {

class CKyTasks : public com::Object<CKyTasks, com::Dual<IKyTasks>, com::With<com::ConnectionPointContainer>> {
public:
    // Dispatch identifiers of the _IKyTasksEvents events.
    static constexpr DISPID kOnAdd = 1;
    static constexpr DISPID kOnRemove = 2;
    static constexpr DISPID kOnUpdate = 3;
    // Dispatch identifier of IKyTasks::Add.
    static constexpr DISPID kAddDispId = 0x60020003;

    CKyTasks();

    // IKyTasks
    STDMETHODIMP get_Count(LONG* pnCount) override;
    STDMETHODIMP get_Item(VARIANT index, IKyTask** ppTask) override;
    STDMETHODIMP get__NewEnum(IUnknown** ppEnum) override;
    STDMETHODIMP Add(BSTR bstrName, VARIANT_BOOL vbShowProgressDialog, ICancelAsyncOperation* pCancelAsyncOperation,
                     IKyTask** ppTask) override;
    STDMETHODIMP Remove(IKyTask* pTask) override;

    // IDispatch, made friendlier to script hosts.
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* excepInfo, UINT* argErr) override;

    // Tells the listeners that a task changed; returns what the last one
    // called answered (S_OK when nobody listens).
    HRESULT FireOnUpdate(IKyTask* task, KYTASKUPDATETYPE what);

private:
    HRESULT FireTaskEvent(DISPID id, IKyTask* task, const ULONG* flags);

    com::CriticalSection m_lock;
    std::list<com::ComPtr<IUnknown>> m_tasks;  // identities, in order of addition
    com::ConnectionPoint m_events;
};

class CKyTask : public com::Object<CKyTask, com::Dual<IKyTask>> {
public:
    // Called once by the list, before anyone else sees the task.
    HRESULT Link(CKyTasks* owner, BSTR name, VARIANT_BOOL showProgressDialog, ICancelAsyncOperation* cancel);

    // IKyTask
    STDMETHODIMP get_Name(BSTR* pbstrName) override;
    STDMETHODIMP put_Name(BSTR bstrName) override;
    STDMETHODIMP get_Description(BSTR* pbstrName) override;
    STDMETHODIMP put_Description(BSTR bstrName) override;
    STDMETHODIMP get_Progress(int* pnProgress) override;
    STDMETHODIMP put_Progress(int nProgress) override;
    STDMETHODIMP get_Flags(ULONG* pdwFlags) override;
    STDMETHODIMP put_Flags(ULONG dwFlags) override;
    STDMETHODIMP get_ShowProgressDialog(VARIANT_BOOL* pvbShowProgressDialog) override;
    STDMETHODIMP get_CanCancel(VARIANT_BOOL* pvbCanCancel) override;
    STDMETHODIMP get_Tag(int* pnTag) override;
    STDMETHODIMP put_Tag(int nTag) override;
    STDMETHODIMP Delete() override;
    STDMETHODIMP Cancel() override;
    STDMETHODIMP SetStandardAnimation(KYTASKANIMATION eAnimation) override;
    STDMETHODIMP SetAnimation(BSTR bstrModuleName, UINT uiResourceID) override;
    STDMETHODIMP GetAnimation(BSTR* pbstrModuleName, UINT* puiResourceID) override;

private:
    HRESULT PutText(com::Bstr& field, BSTR value, KYTASKUPDATETYPE what);
    template <class T>
    HRESULT Put(T& field, T value, KYTASKUPDATETYPE what);
    HRESULT Changed(KYTASKUPDATETYPE what);

    com::CriticalSection m_lock;
    com::ComPtr<CKyTasks> m_owner;
    com::Bstr m_name;
    com::Bstr m_description;
    int m_progress = -1;
    VARIANT_BOOL m_showProgressDialog = VARIANT_FALSE;
    com::ComPtr<ICancelAsyncOperation> m_cancel;
    com::Bstr m_animationModule;
    UINT m_animationResource = 0xFFFFFFFF;
    ULONG m_flags = KYTF_ANIMATION_PLAYING;
    int m_tag = 0;
};

}  // namespace ky
