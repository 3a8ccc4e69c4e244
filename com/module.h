// The module of a COM server: its lock count, its handle and the type
// information that dual interfaces dispatch through. A server derives its own
// module from this class and defines exactly one instance of it.
#pragma once

#include <windows.h>
#include <oaidl.h>

#include <wrl/client.h>

#include <string>
#include <utility>
#include <vector>

#include "raii.h"

namespace com {

class Module {
public:
    // The one module of the process (the most recently constructed one).
    static Module& Get();

    LONG Lock() { return ::InterlockedIncrement(&m_lockCount); }
    LONG Unlock() { return ::InterlockedDecrement(&m_lockCount); }
    LONG LockCount() const { return m_lockCount; }

    HMODULE Handle() const { return m_handle; }
    void SetHandle(HMODULE handle) { m_handle = handle; }
    // Full path of the module file.
    std::wstring Path() const;

    // Type information for an interface described by the type library that
    // is embedded in the module as TYPELIB resource 1. Cached per interface.
    HRESULT GetTypeInfo(REFIID iid, ITypeInfo** typeInfo);
    HRESULT GetTypeLib(ITypeLib** typeLib);

    // Releases the cached type information; called when the module ends.
    void ReleaseTypeInfo();

    // True once the process is exiting: foreign objects may already be gone,
    // so nothing is released any more.
    bool ProcessTerminating() const { return m_terminating; }
    void SetProcessTerminating() { m_terminating = true; }

protected:
    Module();
    virtual ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

private:
    volatile LONG m_lockCount = 0;
    HMODULE m_handle = nullptr;
    bool m_terminating = false;
    CriticalSection m_typeInfoLock;
    Microsoft::WRL::ComPtr<ITypeLib> m_typeLib;
    std::vector<std::pair<IID, Microsoft::WRL::ComPtr<ITypeInfo>>> m_typeInfos;
};

}  // namespace com
