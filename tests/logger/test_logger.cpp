// The logger as its clients use it: channels, masks, delivery as text,
// listeners (calling back, or in another apartment) and thread output locks.
#include <map>

#include "loggertest.h"

namespace ky::test {
namespace {

using Logger = LoggerTest;

std::vector<std::wstring> Numbered(int from, int to) {
    std::vector<std::wstring> texts;
    for (int i = from; i <= to; ++i) texts.push_back(std::to_wstring(i));
    return texts;
}

TEST_F(Logger, ChannelOperationsReportTheirOwnCodes) {
    Channel(101, L"Directory", LET_ERROR);
    // The identifier is tested before the name.
    EXPECT_HR(CO_E_OBJISREG, logger->RegisterChannel(101, com::Bstr(L""), 0));
    EXPECT_HR(E_INVALIDARG, logger->RegisterChannel(102, com::Bstr(L""), 0));
    EXPECT_HR(E_INVALIDARG, logger->RegisterChannel(102, nullptr, 0));
    // An unknown channel: E_INVALIDARG to RevokeChannel, CO_E_OBJNOTREG to the others.
    EXPECT_HR(E_INVALIDARG, logger->RevokeChannel(102));
    EXPECT_HR(CO_E_OBJNOTREG, logger->MaskChannelEvents(102, LET_ERROR));
    EXPECT_HR(CO_E_OBJNOTREG, Log(102, LET_ERROR, L"lost"));
    // Arguments are checked before the channel.
    VARIANT one = Number(1);
    EXPECT_HR(E_INVALIDARG, logger->Log(102, LET_ERROR, nullptr, nullptr));
    EXPECT_HR(E_INVALIDARG, logger->Log(101, LET_NOTHING, &one, nullptr));
    EXPECT_HR(E_INVALIDARG, logger->Log(101, LET_EVERYTHING, &one, nullptr));
    EXPECT_HR(S_OK, logger->RevokeChannel(101));
    EXPECT_HR(CO_E_OBJNOTREG, Log(101, LET_ERROR, L"lost"));
    EXPECT_HR(S_OK, logger->RegisterChannel(101, com::Bstr(L"Again"), LET_WARNING));
}

TEST_F(Logger, TheChannelEnumeratorIsASnapshotWithItsOwnNames) {
    Channel(201, L"Alpha", LET_ERROR | LET_WARNING);
    // Names are copied byte for byte, an embedded zero included.
    ASSERT_HR(S_OK, logger->RegisterChannel(202, com::Bstr(L"Ga\0mma", 6), LET_TRACE));
    ComPtr<IEnumLoggerChannel> e;
    ASSERT_HR(S_OK, logger->EnumChannels(&e));
    Channel(203, L"Later", LET_ERROR);
    EXPECT_HR(S_OK, logger->RevokeChannel(202));

    KyLoggerChannel items[2]{};
    ULONG fetched = 0;
    EXPECT_HR(E_INVALIDARG, e->Next(0, items, &fetched));
    EXPECT_HR(E_POINTER, e->Next(1, nullptr, &fetched));
    EXPECT_HR(E_POINTER, e->Next(2, items, nullptr));
    std::map<ULONG, std::pair<ULONG, std::wstring>> found;
    while (e->Next(1, items, nullptr) == S_OK) {
        found[items[0].dwID] = {items[0].dwEventMask, std::wstring(items[0].bstrName, ::SysStringLen(items[0].bstrName))};
        ::SysFreeString(items[0].bstrName);
    }
    EXPECT_EQ(ULONG(LET_ERROR | LET_WARNING), found[201].first);
    EXPECT_EQ(L"Alpha", found[201].second);
    EXPECT_EQ(std::wstring(L"Ga\0mma", 6), found[202].second);
    EXPECT_EQ(0u, found.count(203));
    // Asking for more than is left gives what is left.
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_OK, e->Skip(ULONG(found.size()) - 1));
    EXPECT_HR(S_FALSE, e->Next(2, items, &fetched));
    EXPECT_EQ(1u, fetched);
    ::SysFreeString(items[0].bstrName);
    EXPECT_HR(E_INVALIDARG, logger->EnumChannels(nullptr));
}

TEST_F(Logger, TheMaskDecidesAndMessagesArriveOnceAsText) {
    auto listener = NewListener();
    Channel(301, L"Silent", 0);
    for (ULONG type = LET_CTOR; type <= LET_EXCEPTION; type <<= 1) EXPECT_HR(S_FALSE, Log(301, type, L"dropped"));
    // A message with several types passes when one of them is in the mask.
    Channel(302, L"Warnings", LET_WARNING);
    EXPECT_HR(S_OK, Log(302, LET_ERROR | LET_WARNING, L"both"));
    EXPECT_HR(S_FALSE, Log(302, LET_ERROR, L"error only"));
    VARIANT number = Number(-1234);
    EXPECT_HR(S_OK, logger->Log(302, LET_WARNING, &number, nullptr));
    auto heard = listener->All();
    ASSERT_EQ(2u, heard.size());
    EXPECT_EQ(302u, heard[0].channel);
    EXPECT_EQ(ULONG(LET_ERROR | LET_WARNING), heard[0].type);
    EXPECT_EQ(L"both", heard[0].text);
    EXPECT_EQ(::GetCurrentThreadId(), heard[0].thread);
    EXPECT_EQ(L"-1234", heard[1].text);

    // A message without text reaches nobody and says why.
    VARIANT plain;
    V_VT(&plain) = VT_UNKNOWN;
    V_UNKNOWN(&plain) = listener->Identity();  // no IDispatch, no text
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->Log(302, LET_WARNING, &plain, nullptr));
    EXPECT_HR(S_OK, logger->MaskChannelEvents(302, 0));
    EXPECT_HR(S_FALSE, Log(302, LET_WARNING, L"masked"));
    EXPECT_EQ(2u, listener->All().size());
}

TEST_F(Logger, ListenersHearInAdviseOrderOnceEach) {
    std::vector<int> order;
    auto first = NewListener(false), second = NewListener(false);
    first->onMessage = [&](const Heard&) { order.push_back(1); };
    second->onMessage = [&](const Heard&) { order.push_back(2); };
    first->result = E_FAIL;  // what listeners answer does not matter
    ULONG cookie = Advise(first.Get());
    Advise(second.Get());
    ULONG again = 0;
    EXPECT_HR(CO_E_OBJISREG, logger->LoggerAdvise(first.Get(), &again));
    EXPECT_EQ(cookie, again);
    Channel(401, L"Order", LET_MESSAGE);
    EXPECT_HR(S_OK, Log(401, LET_MESSAGE, L"hello"));
    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    EXPECT_HR(E_INVALIDARG, logger->LoggerUnadvise(cookie));
    EXPECT_HR(S_OK, Log(401, LET_MESSAGE, L"again"));
    EXPECT_EQ((std::vector<int>{1, 2, 2}), order);
    EXPECT_HR(E_INVALIDARG, logger->LoggerAdvise(nullptr, &again));
    EXPECT_HR(E_INVALIDARG, logger->LoggerAdvise(first.Get(), nullptr));
}

TEST_F(Logger, ListenersMayCallBackOnTheirThread) {
    Channel(501, L"Outer", LET_MESSAGE);
    Channel(502, L"Echo", LET_TRACE);
    auto echo = NewListener();
    auto quitter = NewListener(false);
    ULONG quitterCookie = Advise(quitter.Get());
    echo->onMessage = [&](const Heard& heard) {
        if (heard.channel == 501) {
            EXPECT_HR(S_OK, Log(502, LET_TRACE, L"echo of " + heard.text));
        }
    };
    quitter->onMessage = [&](const Heard&) { logger->LoggerUnadvise(quitterCookie); };
    EXPECT_HR(S_OK, Log(501, LET_MESSAGE, L"ping"));
    // The nested message went out inside the outer one. The quitter left
    // during it, yet heard the outer one: a delivery calls the listeners
    // advised when it began.
    EXPECT_EQ((std::vector<std::wstring>{L"ping", L"echo of ping"}), echo->Texts());
    EXPECT_EQ((std::vector<std::wstring>{L"echo of ping", L"ping"}), quitter->Texts());
    EXPECT_HR(S_OK, Log(501, LET_MESSAGE, L"pong"));
    EXPECT_EQ(2u, quitter->All().size());
}

TEST_F(Logger, AListenerInAnotherApartmentIsCalledThroughItsProxy) {
    StaThread sta;
    ComPtr<Listener> listener;
    IStream* stream = nullptr;
    sta.Run([&] {
        listener = NewListener(false);
        ::CoMarshalInterThreadInterfaceInStream(__uuidof(_IKyLoggerEvents), listener.Get(), &stream);
    });
    ComPtr<_IKyLoggerEvents> proxy;
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(stream, IID_PPV_ARGS(&proxy)));
    EXPECT_NE(static_cast<_IKyLoggerEvents*>(listener.Get()), proxy.Get());
    ULONG cookie = Advise(proxy.Get());
    Channel(601, L"Remote", LET_ERROR);
    VARIANT hint = Number(77), empty;
    ::VariantInit(&empty);
    EXPECT_HR(S_OK, Log(601, LET_ERROR, L"across", &hint));
    EXPECT_HR(S_OK, Log(601, LET_ERROR, L"empty hint", &empty));
    EXPECT_HR(S_OK, Log(601, LET_ERROR, L"no hint"));

    auto heard = listener->All();
    ASSERT_EQ(3u, heard.size());
    for (const Heard& h : heard) {
        EXPECT_EQ(sta.ThreadId(), h.calledOn);
        EXPECT_EQ(::GetCurrentThreadId(), h.thread);  // the thread that logged
    }
    EXPECT_EQ(L"across", heard[0].text);
    EXPECT_EQ(77, heard[0].hintValue);
    EXPECT_TRUE(heard[1].hasHint);
    EXPECT_EQ(VT_EMPTY, heard[1].hintType);
    EXPECT_FALSE(heard[2].hasHint);
    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    proxy.Reset();
    sta.Run([&] { listener.Reset(); });
}

TEST_F(Logger, ALockedThreadsMessagesGoOutBySixteen) {
    auto listener = NewListener();
    Channel(701, L"Burst", LET_TRACE);
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->LockThreadOutput());  // locks do not nest
    for (int i = 1; i <= 15; ++i) EXPECT_HR(S_OK, Log(701, LET_TRACE, std::to_wstring(i)));
    EXPECT_HR(S_FALSE, Log(701, LET_ERROR, L"refused"));  // the mask still applies
    EXPECT_TRUE(listener->All().empty());
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"16"));
    EXPECT_EQ(Numbered(1, 16), listener->Texts());
    for (const Heard& heard : listener->All()) EXPECT_EQ(::GetCurrentThreadId(), heard.thread);

    // Still locked: the seventeenth waits.
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"17"));
    EXPECT_EQ(16u, listener->All().size());
    // Another thread is neither held back nor able to unlock this one.
    DWORD worker = 0;
    IKyLogger* raw = logger.Get();
    RunInApartment(COINIT_MULTITHREADED, [&] {
        worker = ::GetCurrentThreadId();
        EXPECT_HR(S_FALSE, raw->UnlockThreadOutput());
        EXPECT_HR(S_OK, LogText(raw, 701, LET_TRACE, L"worker"));
    });
    EXPECT_EQ(worker, listener->All().back().thread);
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    EXPECT_EQ(L"17", listener->Texts().back());
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());  // nothing was pending
}

TEST_F(Logger, AnEmptyHintIsAPointerOnlyWhenDeliveredAtOnce) {
    auto listener = NewListener();
    Channel(801, L"Hints", LET_TRACE);
    VARIANT empty, number = Number(5);
    ::VariantInit(&empty);
    auto logAll = [&] {
        Log(801, LET_TRACE, L"empty", &empty);
        Log(801, LET_TRACE, L"number", &number);
        Log(801, LET_TRACE, L"none");
    };
    logAll();
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    logAll();
    V_I4(&number) = 6;  // the queue holds its own copy
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    auto heard = listener->All();
    ASSERT_EQ(6u, heard.size());
    const bool hasHint[] = {true, true, false, false, true, false};
    for (size_t i = 0; i < heard.size(); ++i) EXPECT_EQ(hasHint[i], heard[i].hasHint) << i;
    EXPECT_EQ(VT_EMPTY, heard[0].hintType);
    EXPECT_EQ(5, heard[4].hintValue);
}

TEST_F(Logger, AFlushAnswersWhatItsLastDeliveryAnswered) {
    auto listener = NewListener();
    Channel(901, L"Results", LET_TRACE);
    Channel(902, L"Side", LET_TRACE);
    VARIANT noText;
    V_VT(&noText) = VT_UNKNOWN;
    V_UNKNOWN(&noText) = listener->Identity();
    // Conversion happens on delivery: a held message without text is
    // accepted, and its failure is what the flush reports when it is last.
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    for (int i = 1; i <= 15; ++i) Log(901, LET_TRACE, std::to_wstring(i));
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->Log(901, LET_TRACE, &noText, nullptr));
    EXPECT_EQ(Numbered(1, 15), listener->Texts());

    // On unlock the thread is free before its messages go out, so what a
    // listener logs meanwhile goes out at once.
    listener->onMessage = [&](const Heard& heard) {
        if (heard.channel == 901) Log(902, LET_TRACE, L"side " + heard.text);
    };
    Log(901, LET_TRACE, L"a");
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    auto texts = listener->Texts();
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"side a"}), std::vector<std::wstring>(texts.end() - 2, texts.end()));
}

}  // namespace
}  // namespace ky::test
