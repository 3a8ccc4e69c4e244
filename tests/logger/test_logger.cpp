// The logger as its clients use it: channels, masks, delivery as text,
// listeners (calling back, or in another apartment) and thread output locks.
#include <map>

#include "loggertest.h"

namespace ky::test {
namespace {

using Logger = LoggerTest;

using Texts = std::vector<std::wstring>;

Texts Numbered(int from, int to) {
    Texts texts;
    for (int i = from; i <= to; ++i) texts.push_back(std::to_wstring(i));
    return texts;
}

TEST_F(Logger, ChannelOperationsReportTheirOwnCodes) {
    Channel(101, LET_ERROR);
    EXPECT_HR(CO_E_OBJISREG, logger->RegisterChannel(101, com::Bstr(L""), 0));  // the identifier is tested first
    EXPECT_HR(E_INVALIDARG, logger->RegisterChannel(102, nullptr, 0));
    // An unknown channel: E_INVALIDARG to RevokeChannel, CO_E_OBJNOTREG to the others.
    EXPECT_HR(E_INVALIDARG, logger->RevokeChannel(102));
    EXPECT_HR(CO_E_OBJNOTREG, logger->MaskChannelEvents(102, LET_ERROR));
    EXPECT_HR(CO_E_OBJNOTREG, Log(102, LET_ERROR, L"lost"));
    EXPECT_HR(E_INVALIDARG, Log(102, LET_NOTHING, L"lost"));  // arguments come before the channel
    EXPECT_HR(E_INVALIDARG, Log(101, LET_EVERYTHING, L"lost"));
    EXPECT_HR(E_INVALIDARG, logger->Log(101, LET_ERROR, nullptr, nullptr));
    EXPECT_HR(S_OK, logger->RevokeChannel(101));
    EXPECT_HR(CO_E_OBJNOTREG, Log(101, LET_ERROR, L"lost"));
}

TEST_F(Logger, TheChannelEnumeratorIsASnapshotWithItsOwnNames) {
    ASSERT_HR(S_OK, logger->RegisterChannel(201, com::Bstr(L"Ga\0mma", 6), LET_TRACE));  // copied byte for byte
    ComPtr<IEnumLoggerChannel> e;
    ASSERT_HR(S_OK, logger->EnumChannels(&e));
    EXPECT_HR(S_OK, logger->RevokeChannel(201));
    Channel(202, LET_ERROR);
    std::map<ULONG, std::wstring> found;
    KyLoggerChannel item{};
    while (e->Next(1, &item, nullptr) == S_OK) {
        com::Bstr name;
        name.Attach(item.bstrName);
        found[item.dwID] = std::to_wstring(item.dwEventMask) + L" " + std::wstring(name, name.Length());
    }
    EXPECT_EQ((std::map<ULONG, std::wstring>{{201, std::wstring(L"128 Ga\0mma", 10)}}), found);
}

TEST_F(Logger, TheMaskDecidesAndMessagesArriveOnceAsText) {
    auto listener = NewListener();
    Channel(301, 0);
    for (ULONG type = LET_CTOR; type <= LET_EXCEPTION; type <<= 1) EXPECT_HR(S_FALSE, Log(301, type, L"dropped"));
    // A message with several types passes when one of them is in the mask.
    Channel(302, LET_WARNING);
    EXPECT_HR(S_OK, Log(302, LET_ERROR | LET_WARNING, L"both"));
    EXPECT_HR(S_FALSE, Log(302, LET_ERROR, L"error only"));
    VARIANT number = Number(-1234), noText;
    EXPECT_HR(S_OK, logger->Log(302, LET_WARNING, &number, nullptr));
    V_VT(&noText) = VT_UNKNOWN;
    V_UNKNOWN(&noText) = listener->Identity();
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->Log(302, LET_WARNING, &noText, nullptr));  // reaches nobody
    EXPECT_HR(S_OK, logger->MaskChannelEvents(302, 0));
    EXPECT_HR(S_FALSE, Log(302, LET_WARNING, L"masked"));

    auto heard = listener->All();
    ASSERT_EQ(2u, heard.size());
    EXPECT_EQ(302u, heard[0].channel);
    EXPECT_EQ(ULONG(LET_ERROR | LET_WARNING), heard[0].type);
    EXPECT_EQ(::GetCurrentThreadId(), heard[0].thread);
    EXPECT_EQ((Texts{L"both", L"-1234"}), listener->Texts());
}

TEST_F(Logger, ListenersHearInAdviseOrderOnceEach) {
    std::vector<int> order;
    auto first = NewListener(false), second = NewListener(false);
    first->onMessage = [&](const Heard&) { order.push_back(1); };
    second->onMessage = [&](const Heard&) { order.push_back(2); };
    ULONG cookie = Advise(first.Get()), again = 0;
    Advise(second.Get());
    EXPECT_HR(CO_E_OBJISREG, logger->LoggerAdvise(first.Get(), &again));
    EXPECT_EQ(cookie, again);
    Channel(401, LET_MESSAGE);
    EXPECT_HR(S_OK, Log(401, LET_MESSAGE, L"hello"));  // though the listeners fail
    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    EXPECT_HR(E_INVALIDARG, logger->LoggerUnadvise(cookie));
    EXPECT_HR(S_OK, Log(401, LET_MESSAGE, L"again"));
    EXPECT_EQ((std::vector<int>{1, 2, 2}), order);
    EXPECT_HR(E_INVALIDARG, logger->LoggerAdvise(nullptr, &again));
}

TEST_F(Logger, ListenersMayCallBackOnTheirThread) {
    Channel(501, LET_MESSAGE);
    Channel(502, LET_TRACE);
    auto echo = NewListener(), quitter = NewListener(false);
    ULONG quitterCookie = Advise(quitter.Get());
    echo->onMessage = [&](const Heard& heard) {
        if (heard.channel == 501) Log(502, LET_TRACE, L"echo of " + heard.text);
    };
    quitter->onMessage = [&](const Heard&) { logger->LoggerUnadvise(quitterCookie); };
    EXPECT_HR(S_OK, Log(501, LET_MESSAGE, L"ping"));
    // The nested message went out inside the outer one. The quitter left
    // during it, yet heard the outer one: a delivery calls the listeners
    // advised when it began.
    EXPECT_EQ((Texts{L"ping", L"echo of ping"}), echo->Texts());
    EXPECT_EQ((Texts{L"echo of ping", L"ping"}), quitter->Texts());
    // Calling back while the thread's held messages go out is safe too.
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_OK, Log(501, LET_MESSAGE, L"held"));
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    EXPECT_EQ((Texts{L"ping", L"echo of ping", L"held", L"echo of held"}), echo->Texts());
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
    ULONG cookie = Advise(proxy.Get());
    Channel(601, LET_ERROR);
    VARIANT hint = Number(77);
    EXPECT_HR(S_OK, Log(601, LET_ERROR, L"across", &hint));
    EXPECT_HR(S_OK, Log(601, LET_ERROR, L"no hint"));

    auto heard = listener->All();
    ASSERT_EQ(2u, heard.size());
    for (const Heard& h : heard) {
        EXPECT_EQ(sta.ThreadId(), h.calledOn);
        EXPECT_EQ(::GetCurrentThreadId(), h.thread);  // the thread that logged
    }
    EXPECT_EQ(L"across", heard[0].text);
    EXPECT_EQ(L"77", heard[0].hint);
    EXPECT_EQ(L"none", heard[1].hint);
    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    proxy.Reset();
    sta.Run([&] { listener.Reset(); });
}

TEST_F(Logger, ALockedThreadsMessagesGoOutBySixteen) {
    auto listener = NewListener();
    Channel(701, LET_TRACE);
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->LockThreadOutput());  // locks do not nest
    for (int i = 1; i <= 15; ++i) EXPECT_HR(S_OK, Log(701, LET_TRACE, std::to_wstring(i)));
    EXPECT_HR(S_FALSE, Log(701, LET_ERROR, L"refused"));  // the mask still applies
    EXPECT_TRUE(listener->All().empty());
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"16"));
    EXPECT_EQ(Numbered(1, 16), listener->Texts());
    for (const Heard& heard : listener->All()) EXPECT_EQ(::GetCurrentThreadId(), heard.thread);
    EXPECT_HR(S_OK, Log(701, LET_TRACE, L"17"));  // still locked: it waits
    EXPECT_EQ(16u, listener->All().size());

    // Another thread is neither held back nor able to unlock this one.
    RunInApartment(COINIT_MULTITHREADED, [&] {
        EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());
        EXPECT_HR(S_OK, Log(701, LET_TRACE, L"worker"));
    });
    EXPECT_EQ(L"worker", listener->Texts().back());
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    EXPECT_EQ(L"17", listener->Texts().back());
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());  // nothing was pending
}

TEST_F(Logger, HeldMessagesKeepTheirOwnCopiesAndAnEmptyHintBecomesNone) {
    auto listener = NewListener();
    Channel(801, LET_TRACE);
    VARIANT empty, number = Number(5), noText;
    ::VariantInit(&empty);
    V_VT(&noText) = VT_UNKNOWN;
    V_UNKNOWN(&noText) = listener->Identity();
    auto logAll = [&] {
        Log(801, LET_TRACE, L"empty", &empty);
        Log(801, LET_TRACE, L"number", &number);
        Log(801, LET_TRACE, L"none");
    };
    logAll();
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    logAll();
    V_I4(&number) = 6;
    // Text is made on delivery: a held message without text is accepted, and
    // its failure is what the unlock reports, being the last to go out.
    EXPECT_HR(S_OK, logger->Log(801, LET_TRACE, &noText, nullptr));
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->UnlockThreadOutput());
    Texts hints;
    for (const Heard& heard : listener->All()) hints.push_back(heard.hint);
    EXPECT_EQ((Texts{L"empty", L"5", L"none", L"none", L"5", L"none"}), hints);
}

}  // namespace
}  // namespace ky::test
