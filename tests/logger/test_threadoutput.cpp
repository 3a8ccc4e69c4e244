// Thread output locks: a locked thread's messages are held back and go out
// in bursts of sixteen or when the thread unlocks.
#include <string>

#include "loggertest.h"

namespace ky::test {
namespace {

using ThreadOutput = LoggerTest;

std::vector<std::wstring> Numbered(int from, int to) {
    std::vector<std::wstring> texts;
    for (int i = from; i <= to; ++i) texts.push_back(std::to_wstring(i));
    return texts;
}

TEST_F(ThreadOutput, SixteenMessagesGoOutTogetherAndTheSeventeenthWaits) {
    auto listener = AdvisedListener();
    Channel(501, L"Burst", LET_TRACE);
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->LockThreadOutput());  // locks do not nest
    for (int i = 1; i <= 15; ++i) EXPECT_HR(S_OK, Log(501, LET_TRACE, std::to_wstring(i).c_str()));
    // Messages the mask refuses are not held either.
    EXPECT_HR(S_FALSE, Log(501, LET_ERROR, L"refused"));
    EXPECT_TRUE(listener->HeardSoFar().empty());

    EXPECT_HR(S_OK, Log(501, LET_TRACE, L"16"));
    EXPECT_EQ(Numbered(1, 16), listener->Texts());
    for (const Heard& heard : listener->HeardSoFar()) EXPECT_EQ(::GetCurrentThreadId(), heard.thread);

    // Still locked: the next one waits again.
    EXPECT_HR(S_OK, Log(501, LET_TRACE, L"17"));
    EXPECT_EQ(16u, listener->HeardSoFar().size());
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    EXPECT_EQ(Numbered(1, 17), listener->Texts());
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());

    // Unlocking with nothing pending says so.
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());
    EXPECT_HR(S_OK, Log(501, LET_TRACE, L"direct"));
    EXPECT_EQ(18u, listener->HeardSoFar().size());
}

TEST_F(ThreadOutput, AnEmptyHintIsAPointerOnlyWhenDeliveredAtOnce) {
    auto listener = AdvisedListener();
    Channel(502, L"Hints", LET_TRACE);
    VARIANT empty, number;
    ::VariantInit(&empty);
    V_VT(&number) = VT_I4;
    V_I4(&number) = 5;
    auto logAll = [&] {
        EXPECT_HR(S_OK, Log(502, LET_TRACE, L"empty", &empty));
        EXPECT_HR(S_OK, Log(502, LET_TRACE, L"number", &number));
        EXPECT_HR(S_OK, Log(502, LET_TRACE, L"none"));
    };
    logAll();
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    logAll();
    V_I4(&number) = 6;  // the queue holds its own copy
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());

    auto heard = listener->HeardSoFar();
    ASSERT_EQ(6u, heard.size());
    EXPECT_TRUE(heard[0].hasHint);
    EXPECT_EQ(VT_EMPTY, heard[0].hintType);
    EXPECT_FALSE(heard[3].hasHint);
    for (size_t i : {1u, 4u}) {
        EXPECT_TRUE(heard[i].hasHint);
        EXPECT_EQ(VT_I4, heard[i].hintType);
        EXPECT_EQ(5, heard[i].hintValue);
    }
    EXPECT_FALSE(heard[2].hasHint);
    EXPECT_FALSE(heard[5].hasHint);
}

TEST_F(ThreadOutput, AFlushAnswersWhatItsLastDeliveryAnswered) {
    auto listener = AdvisedListener();
    Channel(503, L"Results", LET_TRACE);
    ComPtr<Listener> plain = NewListener();
    VARIANT noText;
    V_VT(&noText) = VT_UNKNOWN;
    V_UNKNOWN(&noText) = plain->Identity();

    // Conversion happens on delivery: a held message that has no text is
    // accepted, and its failure is what the flush reports when it is last.
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    for (int i = 1; i <= 15; ++i) EXPECT_HR(S_OK, Log(503, LET_TRACE, std::to_wstring(i).c_str()));
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->Log(503, LET_TRACE, &noText, nullptr));
    EXPECT_EQ(Numbered(1, 15), listener->Texts());

    EXPECT_HR(S_OK, logger->Log(503, LET_TRACE, &noText, nullptr));
    EXPECT_HR(S_OK, Log(503, LET_TRACE, L"after"));
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    EXPECT_EQ(16u, listener->HeardSoFar().size());
    EXPECT_EQ(L"after", listener->Texts().back());

    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_OK, logger->Log(503, LET_TRACE, &noText, nullptr));
    EXPECT_HR(DISP_E_TYPEMISMATCH, logger->UnlockThreadOutput());
}

TEST_F(ThreadOutput, LocksBelongToThreads) {
    auto listener = AdvisedListener();
    Channel(504, L"Threads", LET_TRACE);
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    EXPECT_HR(S_OK, Log(504, LET_TRACE, L"held"));

    // Another thread is not locked by this one, and cannot unlock it.
    DWORD worker = 0;
    IKyLogger* raw = logger.Get();
    RunInApartment(COINIT_MULTITHREADED, [&] {
        worker = ::GetCurrentThreadId();
        EXPECT_HR(S_FALSE, raw->UnlockThreadOutput());
        VARIANT text;
        V_VT(&text) = VT_BSTR;
        V_BSTR(&text) = ::SysAllocString(L"from worker");
        EXPECT_HR(S_OK, raw->Log(504, LET_TRACE, &text, nullptr));
        ::VariantClear(&text);
    });
    auto heard = listener->HeardSoFar();
    ASSERT_EQ(1u, heard.size());
    EXPECT_EQ(worker, heard[0].thread);
    EXPECT_EQ(worker, heard[0].calledOn);

    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    heard = listener->HeardSoFar();
    ASSERT_EQ(2u, heard.size());
    EXPECT_EQ(L"held", heard[1].text);
    EXPECT_EQ(::GetCurrentThreadId(), heard[1].thread);
}

TEST_F(ThreadOutput, ListenersMayLogWhileALockedThreadFlushes) {
    auto listener = AdvisedListener();
    Channel(505, L"Flush", LET_TRACE);
    Channel(506, L"Side", LET_TRACE);
    int nested = 0;
    listener->onMessage = [&](const Heard& heard) {
        if (heard.channel != 505) return;
        ++nested;
        Log(506, LET_TRACE, (L"side " + heard.text).c_str());
    };
    // During a burst the thread is still locked: what listeners log waits
    // for the next burst.
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    for (int i = 1; i <= 16; ++i) Log(505, LET_TRACE, std::to_wstring(i).c_str());
    EXPECT_EQ(16, nested);
    // The sixteenth side message filled the next queue, which went out
    // from within the last delivery of the first.
    auto expected = Numbered(1, 16);
    for (int i = 1; i <= 16; ++i) expected.push_back(L"side " + std::to_wstring(i));
    EXPECT_EQ(expected, listener->Texts());
    listener->Forget();
    EXPECT_HR(S_FALSE, logger->UnlockThreadOutput());

    // On unlock the thread is free first, so side messages go out at once.
    EXPECT_HR(S_OK, logger->LockThreadOutput());
    Log(505, LET_TRACE, L"a");
    Log(505, LET_TRACE, L"b");
    EXPECT_HR(S_OK, logger->UnlockThreadOutput());
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"side a", L"b", L"side b"}), listener->Texts());
}

}  // namespace
}  // namespace ky::test
