#include "module.h"

#include <oleauto.h>

#include <string>

#include <wrl/client.h>

#include "objectmap.h"

namespace ky {

CKyUtilsModule::CKyUtilsModule() : m_initialized(m_lock.Initialized()) {}

CKyUtilsModule::~CKyUtilsModule() { Term(); }

CKyUtilsModule& CKyUtilsModule::Instance() { return static_cast<CKyUtilsModule&>(com::Module::Get()); }

HRESULT CKyUtilsModule::GetGIT(IGlobalInterfaceTable** git) {
    if (!git) return E_POINTER;
    *git = nullptr;
    com::Lock lock(m_lock);
    if (!m_git) {
        HRESULT hr = ::CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                                        IID_IGlobalInterfaceTable, reinterpret_cast<void**>(&m_git));
        if (FAILED(hr)) return hr;
    }
    m_git->AddRef();
    *git = m_git;
    return S_OK;
}

HRESULT CKyUtilsModule::AddTermCallback(TermCallback callback, void* context) {
    if (!callback) return E_INVALIDARG;
    com::Lock lock(m_lock);
    try {
        m_termCallbacks.emplace_back(callback, context);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT CKyUtilsModule::AddAttachListener(const AttachListener& listener) {
    com::Lock lock(m_lock);
    try {
        m_attachListeners.push_back(listener);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

com::Replacements CKyUtilsModule::ScriptReplacements() const {
    // AppID is replaced by nothing on purpose: the classes that write an
    // AppID value write an empty one.
    return {{L"MODULE", Path()}, {L"APPID", L""}};
}

BOOL CKyUtilsModule::ProcessAttach(HINSTANCE instance) {
    SetHandle(instance);
    for (const auto& listener : m_attachListeners)
        if (listener.attach) listener.attach(listener.context);
    if (!m_initialized) return FALSE;
    for (size_t i = 0; i < ObjectMapSize(); ++i) ObjectMap()[i].objectMain(true);
    return TRUE;
}

void CKyUtilsModule::ProcessDetach(bool processTerminating) {
    for (const auto& listener : m_attachListeners)
        if (listener.detach) listener.detach(listener.context);
    // When the whole process exits, other DLLs may already be unloaded:
    // objects that came from them are then left alone.
    if (processTerminating) SetProcessTerminating();
    Term();
}

void CKyUtilsModule::Term() {
    if (m_terminated) return;
    m_terminated = true;
    for (size_t i = 0; i < ObjectMapSize(); ++i) ObjectMap()[i].objectMain(false);
    std::vector<std::pair<TermCallback, void*>> callbacks;
    callbacks.swap(m_termCallbacks);
    for (const auto& callback : callbacks) callback.first(callback.second);
    bool releaseObjects = !ProcessTerminating();
    for (size_t i = 0; i < ObjectMapSize(); ++i) {
        ObjectMapEntry& entry = ObjectMap()[i];
        if (entry.classObject && releaseObjects) entry.classObject->Release();
        entry.classObject = nullptr;
    }
    if (m_git && releaseObjects) m_git->Release();
    m_git = nullptr;
    if (releaseObjects) ReleaseTypeInfo();
}

HRESULT CKyUtilsModule::RegisterClasses(bool reg) {
    const std::wstring path = Path();
    const com::Replacements replacements = ScriptReplacements();
    for (size_t i = 0; i < ObjectMapSize(); ++i) {
        HRESULT hr = com::RunRegistryScript(path, ObjectMap()[i].registryScript, reg, replacements);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

namespace {

// TypeLib\{LIBID}\<major>.<minor>\0: the library under the neutral locale.
std::wstring NeutralLocaleKey(const TLIBATTR& lib) {
    wchar_t libid[40];
    ::StringFromGUID2(lib.guid, libid, 40);
    return std::wstring(L"TypeLib\\") + libid + L"\\" + std::to_wstring(lib.wMajorVerNum) + L"." +
           std::to_wstring(lib.wMinorVerNum) + L"\\0";
}

}  // namespace

HRESULT CKyUtilsModule::RegisterTypeLibrary(bool reg) {
    const std::wstring path = Path();
    Microsoft::WRL::ComPtr<ITypeLib> typeLib;
    HRESULT hr = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, &typeLib);
    if (FAILED(hr)) return hr;
    TLIBATTR* attr = nullptr;
    hr = typeLib->GetLibAttr(&attr);
    if (FAILED(hr)) return hr;
    TLIBATTR lib = *attr;
    typeLib->ReleaseTLibAttr(attr);
    // The standard dispatch marshaler looks the library up for the neutral
    // locale (Wine's only for it), and the library is registered for 0x409,
    // so the neutral locale gets an entry of its own: without it a listener
    // in another apartment cannot be handed the event dispinterface.
    const std::wstring neutral = NeutralLocaleKey(lib);
    const wchar_t* platform = lib.syskind == SYS_WIN64 ? L"\\win64" : L"\\win32";
    if (reg) {
        hr = ::RegisterTypeLib(typeLib.Get(), const_cast<wchar_t*>(path.c_str()), nullptr);
        if (FAILED(hr) || lib.lcid == 0) return hr;
        com::RegKey key;
        LSTATUS status = key.Create(HKEY_CLASSES_ROOT, (neutral + platform).c_str(), KEY_WRITE);
        if (status == ERROR_SUCCESS)
            status = ::RegSetValueExW(key.Get(), nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(path.c_str()),
                                      static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
        return HRESULT_FROM_WIN32(status);
    }
    if (lib.lcid != 0) ::RegDeleteTreeW(HKEY_CLASSES_ROOT, neutral.c_str());
    // Removing a library that is not registered is not a failure.
    BSTR registeredPath = nullptr;
    if (FAILED(::QueryPathOfRegTypeLib(lib.guid, lib.wMajorVerNum, lib.wMinorVerNum, lib.lcid, &registeredPath)))
        return S_OK;
    ::SysFreeString(registeredPath);
    return ::UnRegisterTypeLib(lib.guid, lib.wMajorVerNum, lib.wMinorVerNum, lib.lcid, lib.syskind);
}

HRESULT CKyUtilsModule::RegisterServer() {
    LCID locale = ::GetThreadLocale();
    ::SetThreadLocale(LOCALE_SYSTEM_DEFAULT);
    HRESULT hr = RegisterClasses(true);
    if (SUCCEEDED(hr)) hr = RegisterTypeLibrary(true);
    ::SetThreadLocale(locale);
    return hr;
}

HRESULT CKyUtilsModule::UnregisterServer() {
    LCID locale = ::GetThreadLocale();
    ::SetThreadLocale(LOCALE_SYSTEM_DEFAULT);
    HRESULT hr = RegisterClasses(false);
    if (SUCCEEDED(hr)) hr = RegisterTypeLibrary(false);
    ::SetThreadLocale(locale);
    return hr;
}

}  // namespace ky
