// A tour of kyutils.dll as a client sees it: every class is created by its
// ProgID through COM and what came back is printed.
#include <windows.h>
#include <objbase.h>

#include <cstdio>
#include <functional>
#include <string>

#include "kyutils.h"

namespace {

struct Service {
    const wchar_t* progId;
    const wchar_t* threadingModel;  // where a client should create it from
    const IID* iid;
    const char* iidName;
};

const Service kServices[] = {
    {L"KyUtils.Logger", L"", &IID_IKyLogger, "IKyLogger"},
    {L"KyUtils.StdDataObject", L"Apartment", &IID_IDataObject, "IDataObject"},
    {L"KyUtils.KyObjectMetaData", L"Free", &IID_IKyObjectMetaData, "IKyObjectMetaData"},
    {L"KyUtils.KyTasks", L"", &IID_IKyTasks, "IKyTasks"},
    {L"KyUtils.KyHelpers", L"Both", &IID_IKyStdStrings, "IKyStdStrings"},
    {L"KyUtils.KyObjectCollectionFactory", L"Free", &IID_IKyObjectCollectionFactory, "IKyObjectCollectionFactory"},
    {L"KyUtils.KyOLE", L"", &IID_IKyOLE, "IKyOLE"},
    {L"KyUtils.KyStrings", L"Both", &IID_IStrings, "IStrings"},
    {L"KyUtils.ComStgConfigurationManager", L"Both", &IID_IComStgOutriggedConfiguration,
     "IComStgOutriggedConfiguration"},
    {L"KyUtils.MTAObjectGodfather", L"Free", &IID_IObjectGodfather, "IObjectGodfather"},
    {L"KyUtils.STAObjectGodfather", L"Apartment", &IID_IObjectGodfather, "IObjectGodfather"},
    {L"kyutils.SystemTimer", L"Free", &IID_ISystemTimer, "ISystemTimer"},
    {L"KyUtils.SearchAttributesGroup", L"", &IID_ISearchAttributesGroup, "ISearchAttributesGroup"},
    {L"KyUtils.SearchAttributesGroupSet", L"", &IID_ISearchAttributesGroupSet, "ISearchAttributesGroupSet"},
    {L"Norvane.OPMLDocument", L"Free", &IID_IOPMLDocument, "IOPMLDocument"},
};

void RunOnThread(DWORD coinit, const std::function<void()>& body) {
    struct Context {
        DWORD coinit;
        const std::function<void()>* body;
    } context{coinit, &body};
    HANDLE thread = ::CreateThread(
        nullptr, 0,
        [](void* p) -> DWORD {
            auto* c = static_cast<Context*>(p);
            ::CoInitializeEx(nullptr, c->coinit);
            (*c->body)();
            ::CoUninitialize();
            return 0;
        },
        &context, 0, nullptr);
    ::WaitForSingleObject(thread, INFINITE);
    ::CloseHandle(thread);
}

// Creates one service by ProgID and asks for its main interface.
bool Visit(const Service& service) {
    CLSID clsid;
    if (FAILED(::CLSIDFromProgID(service.progId, &clsid))) {
        std::printf("  %-36ls not registered yet\n", service.progId);
        return true;
    }
    IUnknown* object = nullptr;
    HRESULT hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, *service.iid,
                                    reinterpret_cast<void**>(&object));
    if (FAILED(hr)) {
        std::printf("  %-36ls FAILED to create: 0x%08lX\n", service.progId, static_cast<unsigned long>(hr));
        return false;
    }
    wchar_t text[40];
    ::StringFromGUID2(clsid, text, 40);
    std::printf("  %-36ls %ls -> %s\n", service.progId, text, service.iidName);
    object->Release();
    return true;
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::printf("KyUtils tour\n\n== Services by ProgID ==\n");
    bool ok = true;
    // Free and Both classes from the multithreaded apartment, the others
    // from a single-threaded one, as their threading models ask.
    RunOnThread(COINIT_MULTITHREADED, [&] {
        for (const auto& service : kServices) {
            std::wstring model = service.threadingModel;
            if (model == L"Free" || model == L"Both") ok = Visit(service) && ok;
        }
    });
    RunOnThread(COINIT_APARTMENTTHREADED, [&] {
        for (const auto& service : kServices) {
            std::wstring model = service.threadingModel;
            if (model == L"Apartment" || model.empty()) ok = Visit(service) && ok;
        }
    });
    std::printf("\n%s\n", ok ? "All services answered." : "Some services FAILED.");
    return ok ? 0 : 1;
}
