// Delivery of messages to listeners: what is accepted, how it is converted,
// who hears it, and listeners that call back or live in another apartment.
#include "loggertest.h"

namespace ky::test {
namespace {

using Delivery = LoggerTest;

const ULONG kAllTypes[] = {LET_CTOR,  LET_DTOR,  LET_METHOD,  LET_GETTER,  LET_SETTER,  LET_PARAM,
                           LET_RESULT, LET_TRACE, LET_MESSAGE, LET_WARNING, LET_ERROR, LET_EXCEPTION};

TEST_F(Delivery, ArgumentsAreCheckedBeforeTheChannel) {
    auto listener = AdvisedListener();
    VARIANT message;
    V_VT(&message) = VT_I4;
    V_I4(&message) = 1;
    EXPECT_HR(E_INVALIDARG, logger->Log(999, LET_ERROR, nullptr, nullptr));
    EXPECT_HR(E_INVALIDARG, logger->Log(999, LET_NOTHING, &message, nullptr));
    EXPECT_HR(E_INVALIDARG, logger->Log(999, LET_EVERYTHING, &message, nullptr));
    Channel(401, L"Checks", LET_EVERYTHING);
    EXPECT_HR(E_INVALIDARG, logger->Log(401, LET_EVERYTHING, &message, nullptr));
    EXPECT_TRUE(listener->HeardSoFar().empty());
}

TEST_F(Delivery, TheChannelMaskDecidesWhatGoesThrough) {
    auto listener = AdvisedListener();
    Channel(402, L"Silent", 0);
    for (ULONG type : kAllTypes) EXPECT_HR(S_FALSE, Log(402, type, L"dropped"));
    EXPECT_TRUE(listener->HeardSoFar().empty());

    // A message with several types passes when one of them is in the mask,
    // and arrives once, with all of them.
    Channel(403, L"Warnings", LET_WARNING);
    EXPECT_HR(S_OK, Log(403, LET_ERROR | LET_WARNING, L"both"));
    EXPECT_HR(S_FALSE, Log(403, LET_ERROR, L"error only"));
    auto heard = listener->HeardSoFar();
    ASSERT_EQ(1u, heard.size());
    EXPECT_EQ(403u, heard[0].channel);
    EXPECT_EQ(ULONG(LET_ERROR | LET_WARNING), ULONG(heard[0].type));
    EXPECT_EQ(L"both", heard[0].text);
    EXPECT_EQ(::GetCurrentThreadId(), heard[0].thread);

    // Masks change at once, to any value.
    EXPECT_HR(S_OK, logger->MaskChannelEvents(403, 0));
    EXPECT_HR(S_FALSE, Log(403, LET_WARNING, L"masked"));
    EXPECT_HR(S_OK, logger->MaskChannelEvents(403, LET_EVERYTHING));
    for (ULONG type : kAllTypes) EXPECT_HR(S_OK, Log(403, type, L"open"));
    EXPECT_EQ(1u + std::size(kAllTypes), listener->HeardSoFar().size());
}

TEST_F(Delivery, MessagesArriveAsText) {
    auto listener = AdvisedListener();
    Channel(404, L"Values", LET_EVERYTHING);
    VARIANT value;
    V_VT(&value) = VT_I4;
    V_I4(&value) = -1234;
    EXPECT_HR(S_OK, logger->Log(404, LET_TRACE, &value, nullptr));
    V_VT(&value) = VT_UI2;
    V_UI2(&value) = 65535;
    EXPECT_HR(S_OK, logger->Log(404, LET_TRACE, &value, nullptr));
    V_VT(&value) = VT_EMPTY;
    EXPECT_HR(S_OK, logger->Log(404, LET_TRACE, &value, nullptr));
    EXPECT_EQ((std::vector<std::wstring>{L"-1234", L"65535", L""}), listener->Texts());

    // A message that has no text reaches nobody and says why.
    ComPtr<Listener> plain = NewListener();  // an object without IDispatch
    V_VT(&value) = VT_UNKNOWN;
    V_UNKNOWN(&value) = plain->Identity();
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->Log(404, LET_TRACE, &value, nullptr));
    EXPECT_EQ(3u, listener->HeardSoFar().size());
}

TEST_F(Delivery, ListenersAreCalledInAdviseOrderAndOnlyOnce) {
    auto first = NewListener(), second = NewListener();
    std::vector<int> order;
    first->onMessage = [&](const Heard&) { order.push_back(1); };
    second->onMessage = [&](const Heard&) { order.push_back(2); };
    first->result = E_FAIL;  // what listeners answer does not matter
    ULONG cookie = Advise(first.Get());
    Advise(second.Get());

    // Advising again changes nothing and tells the cookie already given.
    ULONG again = 0;
    EXPECT_HR(CO_E_OBJISREG, logger->LoggerAdvise(first.Get(), &again));
    EXPECT_EQ(cookie, again);

    Channel(405, L"Order", LET_MESSAGE);
    EXPECT_HR(S_OK, Log(405, LET_MESSAGE, L"hello"));
    EXPECT_EQ((std::vector<int>{1, 2}), order);

    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    EXPECT_HR(E_INVALIDARG, logger->LoggerUnadvise(cookie));
    EXPECT_HR(S_OK, Log(405, LET_MESSAGE, L"again"));
    EXPECT_EQ((std::vector<int>{1, 2, 2}), order);
    EXPECT_HR(E_INVALIDARG, logger->LoggerAdvise(nullptr, &again));
    EXPECT_HR(E_INVALIDARG, logger->LoggerAdvise(first.Get(), nullptr));
}

TEST_F(Delivery, ListenersMayCallBackIntoTheLoggerOnTheirThread) {
    Channel(406, L"Outer", LET_MESSAGE);
    Channel(407, L"Echo", LET_TRACE);
    auto echo = NewListener(), quitter = NewListener();
    ULONG quitterCookie = 0;
    echo->onMessage = [&](const Heard& heard) {
        if (heard.channel != 406) return;
        // Nested deliveries run at once, on the same thread, inside this one.
        VARIANT text;
        V_VT(&text) = VT_BSTR;
        V_BSTR(&text) = ::SysAllocString((L"echo of " + heard.text).c_str());
        EXPECT_HR(S_OK, logger->Log(407, LET_TRACE, &text, nullptr));
        ::VariantClear(&text);
        EXPECT_HR(S_OK, logger->MaskChannelEvents(407, LET_TRACE));
    };
    // A listener that leaves while it is being called.
    bool left = false;
    quitter->onMessage = [&](const Heard&) {
        if (!left) {
            EXPECT_HR(S_OK, logger->LoggerUnadvise(quitterCookie));
        }
        left = true;
    };
    Advise(echo.Get());
    quitterCookie = Advise(quitter.Get());

    EXPECT_HR(S_OK, Log(406, LET_MESSAGE, L"ping"));
    EXPECT_EQ((std::vector<std::wstring>{L"ping", L"echo of ping"}), echo->Texts());
    // The quitter heard the nested message (it was still advised then) and
    // left during it, so the outer one, which reached it later, still came:
    // each delivery calls the listeners advised when it began.
    EXPECT_EQ((std::vector<std::wstring>{L"echo of ping", L"ping"}), quitter->Texts());
    EXPECT_HR(S_OK, Log(406, LET_MESSAGE, L"pong"));
    EXPECT_EQ(2u, quitter->HeardSoFar().size());
    EXPECT_EQ(4u, echo->HeardSoFar().size());
}

TEST_F(Delivery, AListenerInAnotherApartmentIsCalledThroughItsProxy) {
    StaThread sta;
    ComPtr<Listener> listener;
    IStream* marshaled = nullptr;
    sta.Run([&] {
        listener = NewListener();
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(__uuidof(_IKyLoggerEvents),
                                                               static_cast<_IKyLoggerEvents*>(listener.Get()),
                                                               &marshaled));
    });
    ASSERT_NE(nullptr, marshaled);
    ComPtr<_IKyLoggerEvents> proxy;
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&proxy)));
    EXPECT_NE(static_cast<_IKyLoggerEvents*>(listener.Get()), proxy.Get());
    ULONG cookie = Advise(proxy.Get());

    Channel(408, L"Remote", LET_ERROR);
    VARIANT hint;
    V_VT(&hint) = VT_I4;
    V_I4(&hint) = 77;
    EXPECT_HR(S_OK, Log(408, LET_ERROR, L"across", &hint));
    VARIANT empty;
    ::VariantInit(&empty);
    EXPECT_HR(S_OK, Log(408, LET_ERROR, L"empty hint", &empty));
    EXPECT_HR(S_OK, Log(408, LET_ERROR, L"no hint"));

    auto heard = listener->HeardSoFar();
    ASSERT_EQ(3u, heard.size());
    for (const Heard& h : heard) {
        EXPECT_EQ(sta.ThreadId(), h.calledOn);
        EXPECT_EQ(::GetCurrentThreadId(), h.thread);  // the thread that logged
        EXPECT_EQ(408u, h.channel);
    }
    EXPECT_EQ(L"across", heard[0].text);
    EXPECT_TRUE(heard[0].hasHint);
    EXPECT_EQ(VT_I4, heard[0].hintType);
    EXPECT_EQ(77, heard[0].hintValue);
    EXPECT_TRUE(heard[1].hasHint);
    EXPECT_EQ(VT_EMPTY, heard[1].hintType);
    EXPECT_FALSE(heard[2].hasHint);

    EXPECT_HR(S_OK, logger->LoggerUnadvise(cookie));
    proxy.Reset();
    sta.Run([&] { listener.Reset(); });
}

}  // namespace
}  // namespace ky::test
