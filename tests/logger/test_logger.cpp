// The logger as its clients use it: channels, masks, listeners and thread output locks.
#include <functional>

#include "com/module.h"
#include "com/object.h"
#include "com/raii.h"
#include "kytest.h"

namespace ky::test {
namespace {

class TestModule : public com::Module {};  // the listeners count in this program's module
TestModule g_module;

using Microsoft::WRL::ComPtr;
using Texts = std::vector<std::wstring>;

// Hears "text" or "text/hint", and per call (the thread named, the thread called on).
class Listener : public com::Object<Listener, _IKyLoggerEvents> {
public:
    STDMETHODIMP OnMessage(ULONG, KYEVENTTYPES, BSTR text, VARIANT* hint, ULONG thread) override {
        heard.push_back(std::wstring(text, ::SysStringLen(text)) + (hint ? L"/" + std::to_wstring(V_I4(hint)) : L""));
        threads.push_back({thread, ::GetCurrentThreadId()});
        if (onMessage) onMessage(heard.back());
        return E_FAIL;  // what a listener answers must not matter
    }
    Texts heard;
    std::vector<std::pair<DWORD, DWORD>> threads;
    std::function<void(const std::wstring&)> onMessage;
};

// The logger is one object for the process: each test takes away what it added.
class Logger : public ::testing::Test {
protected:
    void SetUp() override { ::CoCreateInstance(CLSID_KyLogger, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&logger)); }
    void TearDown() override {
        for (ULONG cookie : m_cookies) logger->LoggerUnadvise(cookie);
        for (ULONG channel : {101, 401, 601, 701}) logger->RevokeChannel(channel);
        logger->UnlockThreadOutput();
    }
    void Channel(ULONG id, ULONG mask) { EXPECT_HR(S_OK, logger->RegisterChannel(id, com::Bstr(L"Test"), mask)); }
    ULONG Advise(_IKyLoggerEvents* listener) {
        EXPECT_HR(S_OK, logger->LoggerAdvise(listener, &m_cookies.emplace_back()));
        return m_cookies.back();
    }
    ComPtr<Listener> NewListener() { ComPtr<Listener> made; Listener::Make(made); return made; }
    HRESULT Log(ULONG channel, ULONG type, const std::wstring& text, VARIANT* hint = nullptr) {
        com::Variant message;
        V_VT(&message) = VT_BSTR;
        V_BSTR(&message) = ::SysAllocString(text.c_str());
        return logger->Log(channel, KYEVENTTYPES(type), &message, hint);
    }

    ComPtr<IKyLogger> logger;
    std::vector<ULONG> m_cookies;
};

TEST_F(Logger, ChannelsArgumentsAndTheMaskDecideInOrder) {
    Channel(101, LET_ERROR);
    auto listener = NewListener();
    Advise(listener.Get());
    VARIANT number = Number(-12), unknown = Number(0, VT_UNKNOWN);
    V_UNKNOWN(&unknown) = logger.Get();
    const std::pair<std::function<HRESULT()>, HRESULT> cases[] = {
        {[&] { return logger->RegisterChannel(101, com::Bstr(L""), 0); }, CO_E_OBJISREG},  // the id comes first
        {[&] { return logger->RegisterChannel(102, nullptr, 0); }, E_INVALIDARG},
        {[&] { return logger->RevokeChannel(102); }, E_INVALIDARG},
        {[&] { return logger->MaskChannelEvents(102, LET_ERROR); }, CO_E_OBJNOTREG},
        {[&] { return Log(102, LET_NOTHING, L"no type"); }, E_INVALIDARG},  // arguments come before the channel
        {[&] { return Log(101, LET_EVERYTHING, L"every type"); }, E_INVALIDARG},
        {[&] { return logger->Log(101, LET_ERROR, nullptr, nullptr); }, E_INVALIDARG},
        {[&] { return Log(101, LET_WARNING, L"masked"); }, S_FALSE},
        {[&] { return Log(101, LET_ERROR | LET_WARNING, L"one type in the mask"); }, S_OK},
        {[&] { return logger->Log(101, LET_ERROR, &number, nullptr); }, S_OK},
        {[&] { return logger->Log(101, LET_ERROR, &unknown, nullptr); }, DISP_E_TYPEMISMATCH},
        {[&] { return logger->MaskChannelEvents(101, LET_WARNING); }, S_OK},
        {[&] { return Log(101, LET_ERROR, L"masked now"); }, S_FALSE},
        {[&] { return logger->RevokeChannel(101); }, S_OK},
        {[&] { return Log(101, LET_WARNING, L"revoked"); }, CO_E_OBJNOTREG},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_HR(cases[i].second, cases[i].first()) << "case " << i;
    EXPECT_EQ((Texts{L"one type in the mask", L"-12"}), listener->heard);
}

TEST_F(Logger, ListenersHearInAdviseOrderOnTheirOwnThreadsAndMayCallBack) {
    Channel(401, LET_MESSAGE);
    StaThread sta;
    ComPtr<Listener> first = NewListener(), second;
    IStream* stream = nullptr;
    sta.Run([&] {
        second = NewListener();
        ::CoMarshalInterThreadInterfaceInStream(__uuidof(_IKyLoggerEvents), second.Get(), &stream);
    });
    ComPtr<_IKyLoggerEvents> proxy;  // the second listens from another apartment
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(stream, IID_PPV_ARGS(&proxy)));
    ULONG cookie = Advise(first.Get()), secondCookie = Advise(proxy.Get()), again = 0;
    EXPECT_HR(CO_E_OBJISREG, logger->LoggerAdvise(first.Get(), &again));
    EXPECT_EQ(cookie, again);
    EXPECT_HR(E_INVALIDARG, logger->LoggerAdvise(nullptr, &again));
    Texts order;
    first->onMessage = [&](const std::wstring& text) {
        order.push_back(L"1 " + text);
        if (text != L"ping/77") return;
        logger->LoggerUnadvise(secondCookie);
        Log(401, LET_MESSAGE, L"echo");  // goes out inside the outer one
    };
    second->onMessage = [&](const std::wstring& text) { order.push_back(L"2 " + text); };
    VARIANT hint = Number(77);
    EXPECT_HR(S_OK, Log(401, LET_MESSAGE, L"ping", &hint));
    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    EXPECT_HR(E_INVALIDARG, logger->LoggerUnadvise(cookie));
    EXPECT_HR(S_OK, Log(401, LET_MESSAGE, L"gone"));
    // The second left during the ping yet heard it: a delivery calls those advised when it began.
    EXPECT_EQ((Texts{L"1 ping/77", L"1 echo", L"2 ping/77"}), order);
    EXPECT_EQ((std::vector<std::pair<DWORD, DWORD>>{{::GetCurrentThreadId(), sta.ThreadId()}}), second->threads);
    TearDown();
    proxy.Reset();
    sta.Run([&] { second.Reset(); });
}

TEST_F(Logger, ALockedThreadsMessagesGoOutBySixteenWithTheirOwnCopies) {
    auto listener = NewListener();
    Advise(listener.Get());
    Channel(701, LET_TRACE);
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->LockThreadOutput());  // locks do not nest
    VARIANT hint = Number(5), empty = {};
    Texts expected{L"1/5", L"2"};  // an empty hint arrives as none
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"1", &hint));
    V_I4(&hint) = 6;  // the held message has its own copy
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"2", &empty));
    for (int i = 3; i <= 15; ++i) EXPECT_HR(S_OK, Log(701, LET_TRACE, expected.emplace_back(std::to_wstring(i))));
    EXPECT_TRUE(listener->heard.empty());
    EXPECT_HR(S_OK, Log(701, LET_TRACE, expected.emplace_back(L"16")));
    EXPECT_EQ(expected, listener->heard);
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"17"));  // still locked: it waits
    // Another thread is neither held back nor able to unlock this one.
    RunInApartment(COINIT_MULTITHREADED, [&] {
        EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());
        EXPECT_HR(S_OK, Log(701, LET_TRACE, expected.emplace_back(L"worker")));
    });
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    expected.push_back(L"17");
    EXPECT_EQ(expected, listener->heard);
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
