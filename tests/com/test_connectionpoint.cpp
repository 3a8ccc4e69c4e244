// The connection point (cookies are slot index + 1, slots are never
// compacted, firing returns the last listener's result) and the snapshot
// enumerator of its connections.
#include <wrl/client.h>

#include "kytest.h"
#include "testobjects.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

struct ConnectionPoint : ::testing::Test {
    void SetUp() override {
        ASSERT_HR(S_OK, Source::Make(source));
        ASSERT_HR(S_OK, source.As(&container));
        ASSERT_HR(S_OK, container->FindConnectionPoint(IID_IPropertyNotifySink, &point));
    }
    static ComPtr<Listener> NewListener() {
        ComPtr<Listener> listener;
        return Listener::Make(listener) == S_OK ? listener : nullptr;
    }
    DWORD Advise(const ComPtr<Listener>& listener) {
        DWORD cookie = 0;
        return point->Advise(listener->Identity(), &cookie) == S_OK ? cookie : 0;
    }
    ComPtr<Source> source;
    ComPtr<IConnectionPointContainer> container;
    ComPtr<IConnectionPoint> point;
};

TEST_F(ConnectionPoint, CookiesAreSlotsThatUnadviseFreesForReuse) {
    auto a = NewListener(), b = NewListener(), c = NewListener();
    EXPECT_EQ(std::vector<DWORD>({1, 2, 3}), std::vector<DWORD>({Advise(a), Advise(b), Advise(c)}));
    EXPECT_HR(S_OK, point->Unadvise(1));
    EXPECT_HR(S_OK, source->FireChanged(7));
    EXPECT_TRUE(a->heard.empty());
    EXPECT_EQ(1u, c->heard.size());
    EXPECT_EQ(1u, Advise(a));  // the first empty slot is reused
    // cookie, result: unknown cookies are refused, each known one once.
    const std::pair<DWORD, HRESULT> unadvise[] = {{0, CONNECT_E_NOCONNECTION}, {4, CONNECT_E_NOCONNECTION},
                                                  {3, S_OK}, {3, CONNECT_E_NOCONNECTION}, {2, S_OK}, {1, S_OK}};
    for (auto [cookie, hr] : unadvise) EXPECT_HR(hr, point->Unadvise(cookie)) << cookie;
    DWORD cookie = 5;
    EXPECT_HR(E_POINTER, point->Advise(nullptr, &cookie));
    EXPECT_HR(CONNECT_E_CANNOTCONNECT, point->Advise(source->Identity(), &cookie));  // not a listener
}

TEST_F(ConnectionPoint, FiringReachesEveryListenerAndReturnsTheLastOnesResult) {
    EXPECT_HR(S_OK, source->FireChanged(1));  // nobody listening
    auto a = NewListener(), b = NewListener(), late = NewListener();
    a->result = E_ACCESSDENIED;
    DWORD ca = Advise(a), cb = Advise(b), cl = 0;
    // Advised during a firing: heard from the next one. Unadvising itself while called is allowed.
    a->onChanged = [&] { cl ? point->Unadvise(ca) : point->Advise(late->Identity(), &cl); };
    EXPECT_HR(S_OK, source->FireChanged(1));
    EXPECT_TRUE(late->heard.empty());
    b->result = E_FAIL;
    EXPECT_HR(S_OK, source->FireChanged(2));  // the late listener is last now
    EXPECT_EQ(2u, a->heard.size());            // a failing listener does not stop the firing
    EXPECT_EQ(1u, late->heard.size());
    EXPECT_HR(S_OK, source->FireChanged(3));
    EXPECT_EQ(2u, a->heard.size());
    point->Unadvise(cl);
    EXPECT_HR(E_FAIL, source->FireChanged(4));
    point->Unadvise(cb);
}

TEST_F(ConnectionPoint, EnumeratorsSnapshotTheConnectionsAndHoldTheirReferences) {
    auto a = NewListener(), b = NewListener(), c = NewListener();
    DWORD ca = Advise(a), cb = Advise(b), cc = Advise(c);
    point->Unadvise(ca);
    ComPtr<IEnumConnections> e, clone;
    ASSERT_HR(S_OK, point->EnumConnections(&e));
    point->Unadvise(cb), point->Unadvise(cc);  // the snapshot keeps them
    CONNECTDATA got[2];
    ULONG fetched;
    // op: 'n' Next(count), 's' Skip(count), 'r' Reset, 'c' Clone then Next on the clone.
    const struct { char op; ULONG count; HRESULT hr; ULONG fetched; DWORD first; } steps[] = {
        {'n', 1, S_OK, 1, 2},     {'c', 1, S_OK, 1, 3},     {'n', 2, S_FALSE, 1, 3}, {'n', 1, S_FALSE, 0, 0},
        {'r', 0, S_OK, 0, 0},     {'n', 0, S_OK, 0, 0},     {'s', 1, S_OK, 0, 0},    {'n', 1, S_OK, 1, 3},
        {'s', 5, S_FALSE, 0, 0},  {'r', 0, S_OK, 0, 0},     {'s', 2, S_OK, 0, 0},    {'r', 0, S_OK, 0, 0},
        {'n', 2, S_OK, 2, 2},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::Message() << s.op << s.count);
        fetched = s.op == 's' || s.op == 'r' ? 0 : 99;
        HRESULT hr = s.op == 'n' ? e->Next(s.count, got, &fetched)
                   : s.op == 's' ? e->Skip(s.count)
                   : s.op == 'r' ? e->Reset()
                                 : (e->Clone(&clone), clone->Next(s.count, got, &fetched));
        EXPECT_HR(s.hr, hr);
        EXPECT_EQ(s.fetched, fetched);
        EXPECT_EQ(s.first, s.fetched ? got[0].dwCookie : 0u);
        for (ULONG i = 0; i < s.fetched; ++i) got[i].pUnk->Release();
    }
}

}  // namespace
}  // namespace ky::test
