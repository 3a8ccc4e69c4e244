// The object model as a client uses it: the collections and their lookups,
// the outline's properties over its attributes, the property bags, the
// expansion state, lifetimes and concurrent use.
#include <atomic>
#include <thread>
#include <vector>

#include "opmltest.h"
#include "writeonlystream.h"

namespace ky::test::opml {
namespace {

// "Element was not found." (E_KY_ELEMENTNOTFOUND).
constexpr HRESULT kElementNotFound = static_cast<HRESULT>(0x80041021);

class Outlines : public ::testing::Test {
protected:
    void SetUp() override {
        for (const wchar_t* text : {L"one", L"two", L"three"}) m_items.push_back(AddOutline(m_body.Get(), text));
    }
    // The outline found for `key`, or the failure.
    std::string Find(VARIANT* key) {
        IOPMLOutline* found = m_items[0].Get();  // not owned; a failure must clear it
        HRESULT hr = m_body->get_Item(key, &found);
        if (FAILED(hr)) return Hex(hr) + (found ? " (not cleared)" : "");
        const std::string text = Narrow(Str(found, &IOPMLOutline::get_Text));
        found->Release();
        return text;
    }

    ComPtr<IOPMLDocument> m_document = NewDocument();
    ComPtr<IOPMLOutlines> m_body = BodyOf(m_document.Get());
    std::vector<ComPtr<IOPMLOutline>> m_items;
};

TEST_F(Outlines, ItemFindsByPositionFromOneByTextAndByIdentity) {
    const std::string invalid = Hex(E_INVALIDARG), notFound = Hex(kElementNotFound);
    for (VARTYPE type : {VT_I2, VT_I4, VT_UI2, VT_UI4, VT_INT, VT_UINT}) {
        Arg key(3);
        V_VT(&key) = type;  // the low bytes hold the value for every width
        EXPECT_EQ("three", Find(&key)) << type;
    }
    for (int position : {0, 4, -1}) EXPECT_EQ(invalid, Find(Arg(position))) << position;
    Arg real;
    V_VT(&real) = VT_R8;
    V_R8(&real) = 1.0;
    EXPECT_EQ(invalid, Find(&real));

    EXPECT_EQ("two", Find(Arg(L"two")));
    EXPECT_EQ(notFound, Find(Arg(L"Two")));  // exact comparison
    EXPECT_EQ(notFound, Find(Arg(L"")));
    EXPECT_EQ("three", Find(Arg(m_items[2].Get())));
    EXPECT_EQ("one", Find(Arg(VT_UNKNOWN, m_items[0].Get())));
    EXPECT_EQ(notFound, Find(Arg(static_cast<IDispatch*>(nullptr))));
    EXPECT_EQ(notFound, Find(Arg(AddOutline(SubItemsOf(m_items[0].Get()).Get(), L"two").Get())));

    // Script hosts pass their variables by reference.
    Arg target(2);
    Arg byReference;
    V_VT(&byReference) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&byReference) = &target;
    EXPECT_EQ("two", Find(&byReference));

    ComPtr<IOPMLOutline> found;
    EXPECT_HR(E_POINTER, m_body->get_Item(nullptr, &found));
    EXPECT_HR(E_POINTER, m_body->get_Item(Arg(1), nullptr));
}

TEST_F(Outlines, RemoveClosesTheGapAndRefusesForeignOutlines) {
    ComPtr<IOPMLOutlines> nested = SubItemsOf(m_items[0].Get());
    ComPtr<IOPMLOutline> foreign = AddOutline(nested.Get(), L"two");
    EXPECT_HR(kElementNotFound, m_body->Remove(Arg(foreign.Get())));
    EXPECT_HR(S_OK, m_body->Remove(Arg(L"two")));  // the body's own "two", not the nested one
    EXPECT_EQ(L"text=\"one\"\n  text=\"two\"\ntext=\"three\"\n", TreeText(m_body.Get()));
    EXPECT_HR(S_OK, m_body->Remove(Arg(2)));
    EXPECT_HR(E_INVALIDARG, m_body->Remove(Arg(2)));
    EXPECT_HR(E_POINTER, m_body->Remove(nullptr));
    // A removed outline lives on while its holder keeps it.
    EXPECT_EQ(L"text=\"three\"", AttributesText(m_items[2].Get()));
    EXPECT_HR(S_OK, m_body->Clear());
    EXPECT_EQ(0, CountOf(m_body.Get()));
    EXPECT_EQ(1, CountOf(nested.Get()));
}

TEST(Attributes, AddNewLookupAndRemove) {
    // The document goes at once; its outline lives on while held.
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(NewDocument().Get()).Get());
    ComPtr<IOPMLAttributes> attributes = AttributesOf(outline.Get());
    ComPtr<IOPMLAttribute> fresh, found;
    ASSERT_HR(S_OK, attributes->AddNew(&fresh));
    AddAttribute(outline.Get(), L"a", L"1");
    EXPECT_EQ(L"=\"\" a=\"1\"", AttributesText(outline.Get()));
    EXPECT_HR(S_OK, attributes->get_Item(Arg(L"a"), &found));
    EXPECT_EQ(L"1", Str(found, &IOPMLAttribute::get_Value));
    EXPECT_HR(kElementNotFound, attributes->get_Item(Arg(L"missing"), &found));
    EXPECT_HR(S_OK, attributes->Remove(Arg(fresh.Get())));
    EXPECT_HR(kElementNotFound, attributes->Remove(Arg(fresh.Get())));
    EXPECT_EQ(L"a=\"1\"", AttributesText(outline.Get()));
}

// Text, type, IsComment and IsBreakPoint are views over the attributes
// "text", "type", "isComment" and "isBreakpoint".
TEST(OutlineProperties, ReadsCreateMissingAttributesAndWritesGoWhereTheyStand) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get());
    EXPECT_EQ(L"", Str(outline, &IOPMLOutline::get_Text));
    EXPECT_EQ(L"", Str(outline, &IOPMLOutline::get_Text));  // found, not added again
    VARIANT_BOOL flag = VARIANT_TRUE;
    EXPECT_TRUE(FAILED(outline->get_IsComment(&flag)));  // "" is no boolean
    EXPECT_EQ(VARIANT_FALSE, flag);
    EXPECT_TRUE(FAILED(outline->get_IsBreakPoint(&flag)));
    EXPECT_EQ(L"text=\"\" isComment=\"\" isBreakpoint=\"\"", AttributesText(outline.Get()));

    outline = AddOutline(BodyOf(document.Get()).Get());
    AddAttribute(outline.Get(), L"isBreakpoint", L"true");
    AddAttribute(outline.Get(), L"type", L"old");
    EXPECT_HR(S_OK, outline->put_type(com::Bstr(L"new")));
    EXPECT_HR(S_OK, outline->put_Text(com::Bstr(L"new")));
    EXPECT_HR(S_OK, outline->put_IsComment(VARIANT_TRUE));
    EXPECT_HR(S_OK, outline->get_IsBreakPoint(&flag));
    EXPECT_EQ(VARIANT_TRUE, flag);
    EXPECT_HR(S_OK, outline->put_IsBreakPoint(VARIANT_FALSE));
    EXPECT_HR(S_OK, outline->get_IsComment(&flag));
    EXPECT_EQ(VARIANT_TRUE, flag);
    EXPECT_EQ(L"isBreakpoint=\"0\" type=\"new\" text=\"new\" isComment=\"-1\"", AttributesText(outline.Get()));
    EXPECT_HR(E_POINTER, outline->get_Text(nullptr));
    EXPECT_HR(E_POINTER, outline->get_IsComment(nullptr));
}

TEST(OutlineProperties, PropertyBagsReadAndWriteAttributesAsText) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get(), L"t");
    ComPtr<IPropertyBag> bag;
    ASSERT_HR(S_OK, outline.As(&bag));
    com::Variant value;
    V_VT(&value) = VT_I4;
    V_I4(&value) = 42;
    EXPECT_HR(S_OK, bag->Write(L"count", &value));
    V_VT(&value) = VT_BOOL;
    V_BOOL(&value) = VARIANT_TRUE;
    EXPECT_HR(S_OK, bag->Write(L"isComment", &value));
    // Reads convert the text to the type asked for, or give it as it stands.
    V_VT(&value) = VT_I4;
    EXPECT_HR(S_OK, bag->Read(L"count", &value, nullptr));
    EXPECT_EQ(42, V_VT(&value) == VT_I4 ? V_I4(&value) : -1);
    V_VT(&value) = VT_EMPTY;
    EXPECT_HR(S_OK, bag->Read(L"text", &value, nullptr));
    EXPECT_STREQ(L"t", V_VT(&value) == VT_BSTR ? V_BSTR(&value) : L"(no string)");
    value.Clear();
    V_VT(&value) = VT_I4;
    EXPECT_TRUE(FAILED(bag->Read(L"text", &value, nullptr)));  // "t" is no number
    EXPECT_HR(E_INVALIDARG, bag->Read(L"missing", &value, nullptr));
    EXPECT_EQ(L"text=\"t\" count=\"42\" isComment=\"-1\"", AttributesText(outline.Get()));  // reads add nothing

    ComPtr<IPropertyBag2> bag2;
    ASSERT_HR(S_OK, outline.As(&bag2));
    ULONG count = 0, described = 0;
    EXPECT_HR(S_OK, bag2->CountProperties(&count));
    EXPECT_EQ(3u, count);
    PROPBAG2 info[2] = {};
    EXPECT_HR(S_OK, bag2->GetPropertyInfo(1, 2, info, &described));  // positions from 0
    ASSERT_EQ(2u, described);
    EXPECT_STREQ(L"count", info[0].pstrName);
    info[0].vt = VT_I2;
    info[1].pstrName[0] = L'X';  // asks for "XsComment", which is missing
    VARIANT values[2];
    HRESULT results[2] = {E_UNEXPECTED, E_UNEXPECTED};
    EXPECT_HR(E_FAIL, bag2->Read(2, info, nullptr, values, results));
    EXPECT_HR(S_OK, results[0]);
    EXPECT_HR(E_INVALIDARG, results[1]);
    EXPECT_EQ(42, V_VT(&values[0]) == VT_I2 ? V_I2(&values[0]) : -1);
    for (PROPBAG2& entry : info) ::CoTaskMemFree(entry.pstrName);
}

TEST(ExpansionState, AListOfNumbersFromOne) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLExpansionState> expansion = Get(HeaderOf(document.Get()).Get(), &IOPMLHeader::get_ExpansionState);
    for (INT value : {5, -6, 7}) EXPECT_HR(S_OK, expansion->Add(value));
    EXPECT_HR(S_OK, expansion->Remove(1));
    EXPECT_HR(E_INVALIDARG, expansion->Remove(3));
    EXPECT_EQ(L"-6,7", ExpansionText(document.Get()));
    LONG value = 0;
    EXPECT_HR(E_INVALIDARG, expansion->get_Item(0, &value));
    EXPECT_HR(E_INVALIDARG, expansion->get_Item(3, &value));
}

// Readers of a missing property race to add its attribute: exactly one must.
// A tree far deeper than a thread's stack could hold one call per level of:
// lookups, enumeration, Save and the release of the document all get
// through it. Save writes into a stream that only counts the bytes.
TEST(Model, ATreeOfAnyDepthIsWalkedSavedAndReleased) {
    class Counter : public WriteOnlyStream {
    public:
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
    ComPtr<IOPMLOutlines> body = BodyOf(document.Get());
    ComPtr<IOPMLOutline> top;
    EXPECT_HR(S_OK, body->get_Item(Arg(std::wstring(L"x")), &top));
    ComPtr<IUnknown> items;
    EXPECT_HR(S_OK, body->get__NewEnum(&items));
    EXPECT_HR(S_OK, document->Save(Arg(static_cast<IUnknown*>(&counter))));
    // Each outline a line of its own, at its own depth: its TABs, its text
    // attribute, and its closing tag on a line of its own unless it is the last.
    const ULONGLONG tabs = ULONGLONG(kDepth) * (kDepth + 3);  // kDepth(kDepth+3)/2 twice: opening and closing lines
    EXPECT_LT(tabs, counter.bytes);
    top.Reset();
    body.Reset();
    level.Reset();
    items.Reset();
    document.Reset();
}

TEST(Model, ConcurrentReadersAddOneAttributeAndWritersLoseNothing) {
    ComPtr<IOPMLDocument> document = NewDocument();
    std::vector<ComPtr<IOPMLOutline>> outlines;
    for (int i = 0; i < 50; ++i) outlines.push_back(AddOutline(BodyOf(document.Get()).Get()));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            for (auto& outline : outlines) {
                com::Bstr text;
                ComPtr<IOPMLOutlines> subItems;
                ComPtr<IOPMLOutline> added;
                failures += FAILED(outline->get_Text(text.Out())) || FAILED(outline->get_SubItems(&subItems)) ||
                            FAILED(subItems->AddNew(&added));
            }
            ::CoUninitialize();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(0, failures.load());
    for (auto& outline : outlines) {
        EXPECT_EQ(L"text=\"\"", AttributesText(outline.Get()));
        EXPECT_EQ(4, CountOf(SubItemsOf(outline.Get()).Get()));
    }
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
