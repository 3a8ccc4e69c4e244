// The object model as a client uses it: the collections and their lookups,
// and a tree of any depth.
#include <functional>

#include "opmltest.h"
#include "writeonlystream.h"

namespace ky::test::opml {
namespace {

constexpr HRESULT kElementNotFound = static_cast<HRESULT>(0x80041021);

// Positions count from 1 in any integer type; text is compared exactly; an
// outline is found only in its own collection; script hosts pass variables
// by reference. Remove closes the gap; a removed outline lives on while held.
TEST(Outlines, ItemAndRemoveFindByPositionTextOrIdentity) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> body = BodyOf(document.Get());
    std::vector<ComPtr<IOPMLOutline>> items;
    for (const wchar_t* text : {L"one", L"two", L"three"}) items.push_back(AddOutline(body.Get(), text));
    ComPtr<IOPMLOutline> foreign = AddOutline(SubItemsOf(items[0].Get()).Get(), L"two");
    Arg target(2);
    Arg keys[] = {Arg(3), Arg(L"two"), Arg(items[2].Get()), Arg(items[0].Get(), VT_DISPATCH), Arg(), Arg(0), Arg(4),
                  Arg(), Arg(L"Two"), Arg(foreign.Get())};
    V_VT(&keys[0]) = VT_UI2;  // the low bytes hold the value for every width
    V_VT(&keys[4]) = VT_VARIANT | VT_BYREF, V_VARIANTREF(&keys[4]) = &target;
    V_VT(&keys[7]) = VT_R8, V_R8(&keys[7]) = 1.0;
    const std::string invalid = Hex(E_INVALIDARG), notFound = Hex(kElementNotFound);
    const std::string expected[] = {"three", "two", "three", "one", "two", invalid, invalid, invalid, notFound, notFound};
    for (size_t i = 0; i < std::size(keys); ++i) {
        IOPMLOutline* found = items[0].Get();  // not owned; a failure must clear it
        HRESULT hr = body->get_Item(keys[i], &found);
        EXPECT_EQ(expected[i], FAILED(hr) ? Hex(hr) + (found ? " (not cleared)" : "")
                                          : Narrow(Str(ComPtr<IOPMLOutline>(found), &IOPMLOutline::get_Text))) << i;
        if (SUCCEEDED(hr)) found->Release();
    }
    EXPECT_HR(kElementNotFound, body->Remove(Arg(foreign.Get())));
    EXPECT_HR(S_OK, body->Remove(Arg(L"two")));
    EXPECT_HR(S_OK, body->Remove(Arg(2)));
    EXPECT_HR(E_INVALIDARG, body->Remove(Arg(2)));
    EXPECT_EQ(L"text=\"one\"\n  text=\"two\"\n", TreeText(body.Get()));
    EXPECT_EQ(L"text=\"three\"", AttributesText(items[2].Get()));
}

// Loaded attributes answer like added ones: lookups by text before any is
// touched, then each change through the collection, in document order, with
// the same object for the same attribute every time.
TEST(Attributes, LoadedOnesAnswerAndChangeLikeAnyOthers) {
    const std::pair<std::function<void(IOPMLOutline*)>, const wchar_t*> cases[] = {
        {[](IOPMLOutline*) {}, L"a=\"1\" text=\"t\" b=\"2\""},
        {[](IOPMLOutline* o) { AddAttribute(o, L"c", L"3"); }, L"a=\"1\" text=\"t\" b=\"2\" c=\"3\""},
        {[](IOPMLOutline* o) { EXPECT_HR(S_OK, AttributesOf(o)->Remove(Arg(L"text"))); }, L"a=\"1\" b=\"2\""},
        {[](IOPMLOutline* o) { EXPECT_HR(S_OK, AttributesOf(o)->Clear()); }, L""},
        {[](IOPMLOutline* o) { EXPECT_HR(S_OK, o->put_type(com::Bstr(L"x"))); },
         L"a=\"1\" text=\"t\" b=\"2\" type=\"x\""},
    };
    for (const auto& [change, expected] : cases) {
        ComPtr<IOPMLDocument> document = NewDocument();
        ASSERT_HR(S_OK, LoadText(document.Get(), L"<?xml version=\"1.0\"?><opml version=\"1.0\"><head/><body>"
                                                 L"<outline a=\"1\" text=\"t\" b=\"2\"/></body></opml>"));
        ComPtr<IOPMLOutline> outline, again;
        EXPECT_HR(kElementNotFound, BodyOf(document.Get())->get_Item(Arg(L"1"), &outline));
        ASSERT_HR(S_OK, BodyOf(document.Get())->get_Item(Arg(L"t"), &outline));
        LONG count = 0;
        EXPECT_HR(S_OK, AttributesOf(outline.Get())->get_Count(&count));
        EXPECT_EQ(3, count);
        change(outline.Get());
        EXPECT_EQ(expected, AttributesText(outline.Get()));
        ComPtr<IOPMLAttribute> first, same;
        if (AttributesOf(outline.Get())->get_Item(Arg(1), &first) == S_OK) {
            EXPECT_HR(S_OK, AttributesOf(outline.Get())->get_Item(Arg(1), &same));
            EXPECT_EQ(first.Get(), same.Get());
        }
    }
}

// A tree far deeper than a thread's stack could hold one call per level of:
// lookups, enumeration, Save and the release of the document all get through
// it. Save writes into a stream that only counts the bytes.
TEST(Model, ATreeOfAnyDepthIsWalkedSavedAndReleased) {
    struct Counter : WriteOnlyStream {
        STDMETHODIMP Write(const void*, ULONG size, ULONG* written) override {
            bytes += size;
            if (written) *written = size;
            return S_OK;
        }
        ULONGLONG bytes = 0;
    } counter;
    constexpr LONG kDepth = 30000;
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> level = BodyOf(document.Get());
    for (LONG depth = 0; depth < kDepth; ++depth) level = SubItemsOf(AddOutline(level.Get(), L"x").Get());
    ComPtr<IOPMLOutline> top;
    EXPECT_HR(S_OK, BodyOf(document.Get())->get_Item(Arg(L"x"), &top));
    ComPtr<IUnknown> items;
    EXPECT_HR(S_OK, BodyOf(document.Get())->get__NewEnum(&items));
    EXPECT_HR(S_OK, document->Save(Arg(&counter)));
    EXPECT_LT(ULONGLONG(kDepth) * (kDepth + 3), counter.bytes);  // the TABs alone: opening and closing lines
    top.Reset(), level.Reset(), items.Reset(), document.Reset();
}

}  // namespace
}  // namespace ky::test::opml
