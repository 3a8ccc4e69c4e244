// Channels: registration, masks and the channel enumerator.
#include <map>

#include "loggertest.h"

namespace ky::test {
namespace {

using Channels = LoggerTest;

TEST_F(Channels, EachOperationReportsItsOwnCodes) {
    Channel(101, L"Directory", LET_ERROR);
    BSTR empty = ::SysAllocString(L"");
    BSTR name = ::SysAllocString(L"Other");
    // The identifier is tested before the name.
    EXPECT_HR(CO_E_OBJISREG, logger->RegisterChannel(101, empty, 0));
    EXPECT_HR(CO_E_OBJISREG, logger->RegisterChannel(101, name, 0));
    EXPECT_HR(E_INVALIDARG, logger->RegisterChannel(102, empty, 0));
    EXPECT_HR(E_INVALIDARG, logger->RegisterChannel(102, nullptr, 0));
    // An unknown channel: E_INVALIDARG to RevokeChannel, CO_E_OBJNOTREG to the others.
    EXPECT_HR(E_INVALIDARG, logger->RevokeChannel(102));
    EXPECT_HR(CO_E_OBJNOTREG, logger->MaskChannelEvents(102, LET_ERROR));
    EXPECT_HR(CO_E_OBJNOTREG, Log(102, LET_ERROR, L"lost"));

    EXPECT_HR(S_OK, logger->RevokeChannel(101));
    EXPECT_HR(E_INVALIDARG, logger->RevokeChannel(101));
    EXPECT_HR(CO_E_OBJNOTREG, Log(101, LET_ERROR, L"lost"));
    // A revoked identifier is free again.
    EXPECT_HR(S_OK, logger->RegisterChannel(101, name, LET_WARNING));
    EXPECT_HR(S_OK, logger->MaskChannelEvents(101, 0));
    ::SysFreeString(empty);
    ::SysFreeString(name);
}

// The channels with identifiers from `first` up, as an enumerator hands them out.
std::map<ULONG, std::pair<ULONG, std::wstring>> Drain(IEnumLoggerChannel* e, ULONG first) {
    std::map<ULONG, std::pair<ULONG, std::wstring>> found;
    KyLoggerChannel item{};
    ULONG fetched = 0;
    while (e->Next(1, &item, &fetched) == S_OK) {
        if (item.dwID >= first)
            found[item.dwID] = {item.dwEventMask, std::wstring(item.bstrName, ::SysStringLen(item.bstrName))};
        ::SysFreeString(item.bstrName);
    }
    return found;
}

TEST_F(Channels, TheEnumeratorIsASnapshotOfEveryChannel) {
    Channel(201, L"Alpha", LET_ERROR | LET_WARNING);
    Channel(202, L"Beta", 0);
    // Names are copied byte for byte, an embedded zero included.
    BSTR odd = ::SysAllocStringLen(L"Ga\0mma", 6);
    ASSERT_HR(S_OK, logger->RegisterChannel(203, odd, LET_TRACE));
    ::SysFreeString(odd);

    ComPtr<IEnumLoggerChannel> e;
    ASSERT_HR(S_OK, logger->EnumChannels(&e));
    // Later changes are not seen by it.
    Channel(204, L"Delta", LET_ERROR);
    EXPECT_HR(S_OK, logger->RevokeChannel(203));
    EXPECT_HR(S_OK, logger->MaskChannelEvents(201, 0));

    auto found = Drain(e.Get(), 200);
    ASSERT_EQ(3u, found.size());
    EXPECT_EQ(ULONG(LET_ERROR | LET_WARNING), found[201].first);
    EXPECT_EQ(L"Alpha", found[201].second);
    EXPECT_EQ(0u, found[202].first);
    EXPECT_EQ(std::wstring(L"Ga\0mma", 6), found[203].second);

    ComPtr<IEnumLoggerChannel> now;
    ASSERT_HR(S_OK, logger->EnumChannels(&now));
    found = Drain(now.Get(), 200);
    EXPECT_EQ(3u, found.size());
    EXPECT_EQ(0u, found.count(203));
    EXPECT_EQ(0u, found[201].first);
    EXPECT_HR(E_INVALIDARG, logger->EnumChannels(nullptr));
}

TEST_F(Channels, TheEnumeratorKeepsTheStandardContract) {
    Channel(301, L"One", LET_ERROR);
    ComPtr<IEnumLoggerChannel> e;
    ASSERT_HR(S_OK, logger->EnumChannels(&e));
    KyLoggerChannel items[2]{};
    ULONG fetched = 7;
    EXPECT_HR(E_INVALIDARG, e->Next(0, items, &fetched));
    EXPECT_HR(E_POINTER, e->Next(1, nullptr, &fetched));
    EXPECT_HR(E_POINTER, e->Next(2, items, nullptr));

    // Count what is there, then ask for more than that.
    ULONG total = 0;
    while (e->Skip(1) == S_OK) ++total;
    ASSERT_GE(total, 1u);
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_OK, e->Skip(total - 1));
    ComPtr<IEnumLoggerChannel> clone;
    ASSERT_HR(S_OK, e->Clone(&clone));
    EXPECT_HR(S_FALSE, e->Next(2, items, &fetched));
    EXPECT_EQ(1u, fetched);
    ::SysFreeString(items[0].bstrName);
    EXPECT_HR(S_FALSE, e->Next(1, items, &fetched));
    EXPECT_EQ(0u, fetched);
    // The clone has its own position: the last record is still ahead of it.
    EXPECT_HR(S_OK, clone->Next(1, items, nullptr));
    EXPECT_NE(nullptr, items[0].bstrName);
    ::SysFreeString(items[0].bstrName);
}

}  // namespace
}  // namespace ky::test
