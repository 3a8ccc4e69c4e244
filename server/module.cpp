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

namespace {

std::wstring GuidText(const GUID& guid) {
    wchar_t text[40];
    ::StringFromGUID2(guid, text, 40);
    return text;
}

// On a 64-bit system the 32-bit and the 64-bit build of this library are
// registered side by side: class keys live in a registry view of each
// architecture, ProgIDs and type-library keys are shared. This is the other
// architecture's view, or 0 where there is none (a 32-bit system).
REGSAM OtherArchitectureView() {
#ifdef _WIN64
    return KEY_WOW64_32KEY;
#else
    BOOL wow64 = FALSE;
    return ::IsWow64Process(::GetCurrentProcess(), &wow64) && wow64 ? KEY_WOW64_64KEY : 0;
#endif
}

// Whether the other architecture's build still serves the class.
bool OtherArchitectureServes(const CLSID& clsid) {
    const REGSAM view = OtherArchitectureView();
    if (!view) return false;
    com::RegKey key;
    return key.Open(HKEY_CLASSES_ROOT, (L"CLSID\\" + GuidText(clsid) + L"\\InprocServer32").c_str(),
                    KEY_READ | view) == ERROR_SUCCESS;
}

}  // namespace

HRESULT CKyUtilsModule::RegisterClasses(bool reg) {
    const std::wstring path = Path();
    const com::Replacements replacements = ScriptReplacements();
    for (size_t i = 0; i < ObjectMapSize(); ++i) {
        const ObjectMapEntry& entry = ObjectMap()[i];
        HRESULT hr;
        if (!reg && OtherArchitectureServes(*entry.clsid)) {
            // The shared ProgIDs stay for the other build: only this view's class key goes.
            LSTATUS status = ::RegDeleteTreeW(HKEY_CLASSES_ROOT, (L"CLSID\\" + GuidText(*entry.clsid)).c_str());
            hr = status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(status);
        } else {
            hr = com::RunRegistryScript(path, entry.registryScript, reg, replacements);
        }
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

namespace {

// TypeLib\{LIBID}\<major>.<minor>\0: the library under the neutral locale.
std::wstring NeutralLocaleKey(const TLIBATTR& lib) {
    return L"TypeLib\\" + GuidText(lib.guid) + L"\\" + std::to_wstring(lib.wMajorVerNum) + L"." +
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
    if (lib.lcid != 0) {
        // The type-library keys are shared between the architectures: only
        // this platform's entry goes, and the locale key once it is empty.
        ::RegDeleteTreeW(HKEY_CLASSES_ROOT, (neutral + platform).c_str());
        ::RegDeleteKeyW(HKEY_CLASSES_ROOT, neutral.c_str());
    }
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
