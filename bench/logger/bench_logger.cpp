// What Log costs per message: delivered at once and held back on a locked
// thread, to one and to four listeners, next to what a caller would pay to
// convert the message and call the same listeners itself.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <cstdio>
#include <vector>

#include "bench.h"
#include "com/module.h"
#include "com/object.h"
#include "kyutils.h"

namespace {

class BenchModule : public com::Module {};
BenchModule g_module;

class Listener : public com::Object<Listener, _IKyLoggerEvents> {
public:
    STDMETHODIMP OnMessage(ULONG, KYEVENTTYPES, BSTR text, VARIANT*, ULONG) override {
        m_characters += ::SysStringLen(text);
        return S_OK;
    }
    ULONG64 Characters() const { return m_characters; }

private:
    volatile ULONG64 m_characters = 0;
};

constexpr int kMessages = 64000;  // a multiple of 16: locked runs end on a flush
constexpr ULONG kChannel = 1;

void Measure(IKyLogger* logger, int listenerCount, bool locked) {
    std::vector<com::ComPtr<Listener>> listeners(listenerCount);
    std::vector<ULONG> cookies;
    for (auto& listener : listeners) {
        Listener::Make(listener);
        ULONG cookie = 0;
        logger->LoggerAdvise(listener.Get(), &cookie);
        cookies.push_back(cookie);
    }
    VARIANT message;
    V_VT(&message) = VT_BSTR;
    V_BSTR(&message) = ::SysAllocString(L"Search of cn=Users,dc=example,dc=com done");
    DWORD thread = ::GetCurrentThreadId();

    double logged = ky::bench::Seconds([&] {
        if (locked) logger->LockThreadOutput();
        for (int i = 0; i < kMessages; ++i) logger->Log(kChannel, LET_TRACE, &message, nullptr);
        if (locked) logger->UnlockThreadOutput();
    });
    // The caller's own way: copy, convert, call every listener.
    double direct = ky::bench::Seconds([&] {
        for (int i = 0; i < kMessages; ++i) {
            VARIANT text;
            ::VariantInit(&text);
            ::VariantCopy(&text, &message);
            ::VariantChangeType(&text, &text, 0, VT_BSTR);
            for (auto& listener : listeners) listener->OnMessage(kChannel, LET_TRACE, V_BSTR(&text), nullptr, thread);
            ::VariantClear(&text);
        }
    });
    char what[64], baseline[64];
    std::snprintf(what, sizeof what, "Log, %d listener%s, %s", listenerCount, listenerCount > 1 ? "s" : "",
                  locked ? "thread locked" : "at once");
    std::snprintf(baseline, sizeof baseline, "convert + %d direct call%s", listenerCount, listenerCount > 1 ? "s" : "");
    ky::bench::Report(what, logged, baseline, direct, kMessages);

    for (ULONG cookie : cookies) logger->LoggerUnadvise(cookie);
    ::VariantClear(&message);
}

}  // namespace

int main() {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    {
        com::ComPtr<IKyLogger> logger;
        HRESULT hr = ::CoCreateInstance(CLSID_KyLogger, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&logger));
        if (FAILED(hr)) {
            std::printf("cannot create the logger: 0x%08lX\n", static_cast<unsigned long>(hr));
            return 1;
        }
        BSTR name = ::SysAllocString(L"Benchmark");
        logger->RegisterChannel(kChannel, name, LET_TRACE);
        ::SysFreeString(name);
        for (int listeners : {1, 4})
            for (bool locked : {false, true}) Measure(logger.Get(), listeners, locked);
        logger->RevokeChannel(kChannel);
    }
    ::CoUninitialize();
    return 0;
}
