// The module object of kyutils.dll.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <vector>

#include "com/module.h"
#include "com/raii.h"
#include "com/registrar.h"

namespace ky {

class CKyUtilsModule : public com::Module {
public:
    using TermCallback = void (*)(void* context);
    struct AttachListener {
        void (*attach)(void* context);
        void (*detach)(void* context);
        void* context;
    };

    CKyUtilsModule();
    ~CKyUtilsModule() override;

    static CKyUtilsModule& Instance();

    // False when the module's lock could not be set up; the load is refused.
    bool Initialized() const { return m_initialized; }

    // The process's Global Interface Table, created on first use; the caller
    // gets its own reference.
    HRESULT GetGIT(IGlobalInterfaceTable** git);

    // Runs `callback` once when the module ends.
    HRESULT AddTermCallback(TermCallback callback, void* context);
    // Called on process attach and detach.
    HRESULT AddAttachListener(const AttachListener& listener);

    // Registry-script replacements: %MODULE% and %APPID% (deliberately empty).
    com::Replacements ScriptReplacements() const;

    // DllMain's work.
    BOOL ProcessAttach(HINSTANCE instance);
    void ProcessDetach(bool processTerminating);

    HRESULT RegisterServer();
    HRESULT UnregisterServer();

private:
    // Ends the module: object-main hooks, termination callbacks, cached class
    // objects, the Global Interface Table. Runs once.
    void Term();
    HRESULT RegisterClasses(bool reg);
    HRESULT RegisterTypeLibrary(bool reg);

    com::SystemCriticalSection m_lock;
    bool m_initialized;
    bool m_terminated = false;
    IGlobalInterfaceTable* m_git = nullptr;
    std::vector<std::pair<TermCallback, void*>> m_termCallbacks;
    std::vector<AttachListener> m_attachListeners;
};

}  // namespace ky
