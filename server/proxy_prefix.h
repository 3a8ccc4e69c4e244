/* Included ahead of the generated proxy/stub code, which is C: MinGW declares
   these three IUnknown proxy helpers for C++ only. (rpcproxy.h must not be
   included here: the generated code sets macros before including it.) */
#include <windows.h>
#include <objbase.h>

HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown* This, REFIID riid, void** ppvObject);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown* This);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown* This);
