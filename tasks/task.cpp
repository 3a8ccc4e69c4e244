#include "tasks/tasks.h"

#include "com/property.h"
#include "contract/resultcodes.h"

namespace ky {

namespace {

// The standard animations: AVI resources of the system shell library.
struct StandardAnimation {
    KYTASKANIMATION animation;
    const wchar_t* module;
    UINT resource;
};

constexpr StandardAnimation kStandardAnimations[] = {
    {KYTA_NONE, nullptr, 0xFFFFFFFF},          {KYTA_COPY, L"shell32.dll", 161},
    {KYTA_MOVE, L"shell32.dll", 160},          {KYTA_DELETE, L"shell32.dll", 164},
    {KYTA_DOWNLOAD, L"shell32.dll", 170},      {KYTA_FLASHLIGHT, L"shell32.dll", 150},
    {KYTA_PROPERTIES, L"shell32.dll", 165},
};

}  // namespace

HRESULT CKyTask::Link(CKyTasks* owner, BSTR name, VARIANT_BOOL showProgressDialog, ICancelAsyncOperation* cancel) {
    HRESULT hr = m_name.Assign(name);
    if (FAILED(hr)) return hr;
    m_owner = owner;
    m_showProgressDialog = showProgressDialog;
    m_cancel = cancel;
    return S_OK;
}

// Fires after the change is stored and the task's lock is left, so that a
// listener may call back into the task. The setter answers what the
// listeners answered, even though the value stands either way.
HRESULT CKyTask::Changed(KYTASKUPDATETYPE what) {
    return m_owner ? m_owner->FireOnUpdate(this, what) : S_OK;
}

HRESULT CKyTask::PutText(com::Bstr& field, BSTR value, KYTASKUPDATETYPE what) {
    {
        com::Lock lock(m_lock);
        if (value != field.Get()) {
            HRESULT hr = field.Assign(value);
            if (FAILED(hr)) return hr;
        }
    }
    return Changed(what);
}

template <class T>
HRESULT CKyTask::Put(T& field, T value, KYTASKUPDATETYPE what) {
    {
        com::Lock lock(m_lock);
        field = value;
    }
    return Changed(what);
}

STDMETHODIMP CKyTask::get_Name(BSTR* pbstrName) { return com::GetLocked(m_lock, m_name, pbstrName); }

STDMETHODIMP CKyTask::put_Name(BSTR bstrName) {
    // A task always has a name.
    if (::SysStringLen(bstrName) == 0) return E_INVALIDARG;
    return PutText(m_name, bstrName, KYTUT_NAME);
}

STDMETHODIMP CKyTask::get_Description(BSTR* pbstrName) { return com::GetLocked(m_lock, m_description, pbstrName); }

STDMETHODIMP CKyTask::put_Description(BSTR bstrName) {
    // A description is optional: an empty one clears it.
    return PutText(m_description, ::SysStringLen(bstrName) ? bstrName : nullptr, KYTUT_DESCRIPTION);
}

STDMETHODIMP CKyTask::get_Progress(int* pnProgress) { return com::GetLocked(m_lock, m_progress, pnProgress); }

STDMETHODIMP CKyTask::put_Progress(int nProgress) {
    // -1 (no figure) or a percentage.
    if (static_cast<unsigned>(nProgress) + 1u > 101u) return E_INVALIDARG;
    return Put(m_progress, nProgress, KYTUT_PROGRESS);
}

STDMETHODIMP CKyTask::get_Flags(ULONG* pdwFlags) { return com::GetLocked(m_lock, m_flags, pdwFlags); }

STDMETHODIMP CKyTask::put_Flags(ULONG dwFlags) {
    // A two-state switch, not a bit set.
    if (dwFlags != KYTF_ANIMATION_STOPPED && dwFlags != KYTF_ANIMATION_PLAYING) return E_INVALIDARG;
    return Put(m_flags, dwFlags, KYTUT_FLAGS);
}

STDMETHODIMP CKyTask::get_ShowProgressDialog(VARIANT_BOOL* pvbShowProgressDialog) {
    if (!pvbShowProgressDialog) return E_POINTER;
    *pvbShowProgressDialog = m_showProgressDialog;  // fixed at creation: no lock
    return S_OK;
}

STDMETHODIMP CKyTask::get_CanCancel(VARIANT_BOOL* pvbCanCancel) {
    if (!pvbCanCancel) return E_POINTER;
    *pvbCanCancel = m_cancel ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

STDMETHODIMP CKyTask::get_Tag(int* pnTag) { return com::GetLocked(m_lock, m_tag, pnTag); }

// The client's own value: nobody is told.
STDMETHODIMP CKyTask::put_Tag(int nTag) { return com::PutLocked(m_lock, m_tag, nTag); }

STDMETHODIMP CKyTask::Delete() { return m_owner ? m_owner->Remove(this) : E_UNEXPECTED; }

STDMETHODIMP CKyTask::Cancel() {
    if (!m_cancel) return E_UNEXPECTED;
    // The operation decides what cancelling means; its answer is not ours.
    m_cancel->Cancel();
    return S_OK;
}

STDMETHODIMP CKyTask::SetStandardAnimation(KYTASKANIMATION eAnimation) {
    for (const StandardAnimation& row : kStandardAnimations) {
        if (row.animation != eAnimation) continue;
        com::Bstr module;
        HRESULT hr = module.AssignText(row.module);
        if (FAILED(hr)) return hr;
        return static_cast<IKyTask*>(this)->SetAnimation(module, row.resource);
    }
    return E_KY_ELEMENTNOTFOUND;
}

STDMETHODIMP CKyTask::SetAnimation(BSTR bstrModuleName, UINT uiResourceID) {
    {
        com::Lock lock(m_lock);
        if (bstrModuleName != m_animationModule.Get()) {
            HRESULT hr = m_animationModule.Assign(bstrModuleName);
            if (FAILED(hr)) return hr;
        }
        m_animationResource = uiResourceID;
    }
    return Changed(KYTUT_ANIMATION);
}

STDMETHODIMP CKyTask::GetAnimation(BSTR* pbstrModuleName, UINT* puiResourceID) {
    if (!pbstrModuleName || !puiResourceID) return E_POINTER;
    com::Lock lock(m_lock);
    *puiResourceID = m_animationResource;
    return m_animationModule.CopyTo(pbstrModuleName);
}

}  // namespace ky
