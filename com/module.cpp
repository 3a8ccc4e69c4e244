#include "module.h"

namespace com {

namespace {
Module* g_module = nullptr;
}

Module& Module::Get() { return *g_module; }

Module::Module() {
    g_module = this;
    // Until DllMain says otherwise, the module is the program it is linked into.
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCWSTR>(&g_module), &m_handle);
}

Module::~Module() {
    if (g_module == this) g_module = nullptr;
    if (m_terminating) {
        // Leave the interface pointers alone: oleaut32 may already be gone.
        for (auto& entry : m_typeInfos) entry.second.Detach();
        m_typeLib.Detach();
    }
}

std::wstring Module::Path() const {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        DWORD length = ::GetModuleFileNameW(m_handle, &path[0], static_cast<DWORD>(path.size()));
        if (length == 0) return std::wstring();
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

HRESULT Module::GetTypeLib(ITypeLib** typeLib) {
    if (!typeLib) return E_POINTER;
    *typeLib = nullptr;
    com::Lock lock(m_typeInfoLock);
    if (!m_typeLib) {
        HRESULT hr = ::LoadTypeLibEx(Path().c_str(), REGKIND_NONE, &m_typeLib);
        if (FAILED(hr)) return hr;
    }
    return m_typeLib.CopyTo(typeLib);
}

HRESULT Module::GetTypeInfo(REFIID iid, ITypeInfo** typeInfo) {
    if (!typeInfo) return E_POINTER;
    *typeInfo = nullptr;
    com::Lock lock(m_typeInfoLock);
    for (auto& entry : m_typeInfos) {
        if (IsEqualIID(entry.first, iid)) return entry.second.CopyTo(typeInfo);
    }
    Microsoft::WRL::ComPtr<ITypeLib> typeLib;
    HRESULT hr = GetTypeLib(&typeLib);
    if (FAILED(hr)) return hr;
    Microsoft::WRL::ComPtr<ITypeInfo> info;
    hr = typeLib->GetTypeInfoOfGuid(iid, &info);
    if (FAILED(hr)) return hr;
    // A dual interface is found as its dispinterface; dispatching goes
    // through the interface part, whose Invoke calls the vtable.
    TYPEATTR* attr = nullptr;
    if (SUCCEEDED(info->GetTypeAttr(&attr))) {
        bool dual = attr->typekind == TKIND_DISPATCH && (attr->wTypeFlags & TYPEFLAG_FDUAL);
        info->ReleaseTypeAttr(attr);
        if (dual) {
            HREFTYPE ref = 0;
            Microsoft::WRL::ComPtr<ITypeInfo> vtableInfo;
            if (SUCCEEDED(info->GetRefTypeOfImplType(-1, &ref)) && SUCCEEDED(info->GetRefTypeInfo(ref, &vtableInfo)))
                info = vtableInfo;
        }
    }
    m_typeInfos.emplace_back(iid, info);
    return info.CopyTo(typeInfo);
}

void Module::ReleaseTypeInfo() {
    com::Lock lock(m_typeInfoLock);
    m_typeInfos.clear();
    m_typeLib.Reset();
}

}  // namespace com
