// The connection point: cookies are slot index + 1, slots are never
// compacted, firing returns the last listener's result.
#include <wrl/client.h>

#include "kytest.h"
#include "testobjects.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

struct Fixture : ::testing::Test {
    void SetUp() override {
        ASSERT_HR(S_OK, Source::Make(source));
        ComPtr<IConnectionPointContainer> container;
        ASSERT_HR(S_OK, source.As(&container));
        ASSERT_HR(S_OK, container->FindConnectionPoint(IID_IPropertyNotifySink, &point));
    }
    ComPtr<Listener> NewListener() {
        ComPtr<Listener> listener;
        EXPECT_HR(S_OK, Listener::Make(listener));
        return listener;
    }
    DWORD Advise(const ComPtr<Listener>& listener) {
        DWORD cookie = 0;
        EXPECT_HR(S_OK, point->Advise(listener->Identity(), &cookie));
        return cookie;
    }
    ComPtr<Source> source;
    ComPtr<IConnectionPoint> point;
};

using ConnectionPoint = Fixture;

TEST_F(ConnectionPoint, CookiesAreSlotsAndSurviveUnadvise) {
    auto a = NewListener(), b = NewListener(), c = NewListener();
    EXPECT_EQ(1u, Advise(a));
    EXPECT_EQ(2u, Advise(b));
    EXPECT_EQ(3u, Advise(c));
    EXPECT_HR(S_OK, point->Unadvise(1));
    EXPECT_HR(S_OK, source->FireChanged(7));
    EXPECT_TRUE(a->heard.empty());
    EXPECT_EQ(1u, b->heard.size());
    EXPECT_EQ(1u, c->heard.size());
    auto d = NewListener();
    EXPECT_EQ(1u, Advise(d));  // the first empty slot is reused
    EXPECT_HR(S_OK, point->Unadvise(2));
    EXPECT_HR(S_OK, point->Unadvise(3));
    EXPECT_HR(S_OK, point->Unadvise(1));
}

TEST_F(ConnectionPoint, UnadviseRefusesUnknownCookies) {
    auto a = NewListener();
    DWORD cookie = Advise(a);
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(0));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(cookie + 1));
    EXPECT_HR(S_OK, point->Unadvise(cookie));
    EXPECT_HR(CONNECT_E_NOCONNECTION, point->Unadvise(cookie));
}

TEST_F(ConnectionPoint, AdviseChecksItsArgumentsAndTheSink) {
    DWORD cookie = 5;
    EXPECT_HR(E_POINTER, point->Advise(nullptr, &cookie));
    EXPECT_EQ(0u, cookie);
    auto a = NewListener();
    EXPECT_HR(E_POINTER, point->Advise(a->Identity(), nullptr));
    ComPtr<IUnknown> widget;
    ASSERT_HR(S_OK, Widget::CreateInstance(nullptr, IID_IUnknown, &widget));
    EXPECT_HR(CONNECT_E_CANNOTCONNECT, point->Advise(widget.Get(), &cookie));
}

TEST_F(ConnectionPoint, FiringReturnsTheLastListenersResult) {
    EXPECT_HR(S_OK, source->FireChanged(1));  // nobody listening
    auto a = NewListener(), b = NewListener();
    a->result = E_ACCESSDENIED;
    DWORD ca = Advise(a);
    DWORD cb = Advise(b);
    EXPECT_HR(S_OK, source->FireChanged(1));
    EXPECT_EQ(1u, a->heard.size());  // a failing listener does not stop the firing
    b->result = E_FAIL;
    EXPECT_HR(E_FAIL, source->FireChanged(2));
    point->Unadvise(ca);
    point->Unadvise(cb);
}

TEST_F(ConnectionPoint, ListenersAdvisedDuringAFiringWaitForTheNext) {
    auto a = NewListener(), late = NewListener();
    DWORD lateCookie = 0;
    a->onChanged = [&] {
        if (!lateCookie) point->Advise(late->Identity(), &lateCookie);
    };
    DWORD ca = Advise(a);
    source->FireChanged(1);
    EXPECT_TRUE(late->heard.empty());
    source->FireChanged(2);
    EXPECT_EQ(1u, late->heard.size());
    point->Unadvise(ca);
    point->Unadvise(lateCookie);
}

TEST_F(ConnectionPoint, AListenerMayUnadviseItselfWhileBeingCalled) {
    auto a = NewListener();
    DWORD ca = 0;
    a->onChanged = [&] { EXPECT_HR(S_OK, point->Unadvise(ca)); };
    ca = Advise(a);
    EXPECT_HR(S_OK, source->FireChanged(1));
    EXPECT_HR(S_OK, source->FireChanged(2));
    EXPECT_EQ(1u, a->heard.size());
}

TEST_F(ConnectionPoint, EnumConnectionsListsOccupiedSlots) {
    auto a = NewListener(), b = NewListener();
    DWORD ca = Advise(a);
    DWORD cb = Advise(b);
    point->Unadvise(ca);
    ComPtr<IEnumConnections> e;
    ASSERT_HR(S_OK, point->EnumConnections(&e));
    CONNECTDATA data[2];
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, e->Next(2, data, &fetched));
    ASSERT_EQ(1u, fetched);
    EXPECT_EQ(cb, data[0].dwCookie);
    data[0].pUnk->Release();
    point->Unadvise(cb);
}

TEST_F(ConnectionPoint, BelongsToItsContainer) {
    IID iid;
    EXPECT_HR(S_OK, point->GetConnectionInterface(&iid));
    EXPECT_TRUE(IsEqualIID(iid, IID_IPropertyNotifySink));
    ComPtr<IConnectionPointContainer> container;
    ASSERT_HR(S_OK, point->GetConnectionPointContainer(&container));
    ComPtr<IConnectionPoint> other;
    EXPECT_HR(CONNECT_E_NOCONNECTION, container->FindConnectionPoint(IID_IPropertyBag, &other));
    ComPtr<IEnumConnectionPoints> points;
    ASSERT_HR(S_OK, container->EnumConnectionPoints(&points));
    IConnectionPoint* got[2] = {};
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, points->Next(2, got, &fetched));
    ASSERT_EQ(1u, fetched);
    EXPECT_EQ(point.Get(), got[0]);
    got[0]->Release();
    // The point keeps its container alive.
    container.Reset();
    source.Reset();
    EXPECT_HR(S_OK, point->GetConnectionInterface(&iid));
}

}  // namespace
}  // namespace ky::test
