// The object model as a client uses it: a new document, the collections and
// their lookups, the outline's properties over its attributes, the property
// bags, the expansion state, and concurrent use.
#include <atomic>
#include <thread>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

TEST(Model, ANewDocumentIsEmpty) {
    ComPtr<IOPMLDocument> document = NewDocument();
    int major = 0, minor = -1;
    EXPECT_HR(S_OK, document->get_VersionMajor(&major));
    EXPECT_HR(S_OK, document->get_VersionMinor(&minor));
    EXPECT_EQ(1, major);
    EXPECT_EQ(0, minor);
    EXPECT_HR(E_POINTER, document->get_VersionMajor(nullptr));
    EXPECT_HR(E_POINTER, document->get_Header(nullptr));
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    BSTR title = nullptr;
    EXPECT_HR(S_OK, header->get_Title(&title));
    ASSERT_NE(nullptr, title);  // an empty string, not a null one
    EXPECT_EQ(0u, ::SysStringLen(title));
    ::SysFreeString(title);
    DATE created = -1;
    ULONG scroll = 0;
    LONG top = -1;
    EXPECT_HR(S_OK, header->get_DateCreated(&created));
    EXPECT_HR(S_OK, header->get_VertScrollState(&scroll));
    EXPECT_HR(S_OK, header->get_WindowTop(&top));
    EXPECT_EQ(0.0, created);
    EXPECT_EQ(0xFFFFFFFFu, scroll);
    EXPECT_EQ(0, top);
    EXPECT_EQ(0, CountOf(BodyOf(document.Get()).Get()));
    // The header and body are the document's own: the same objects every time.
    EXPECT_EQ(header.Get(), HeaderOf(document.Get()).Get());
    EXPECT_EQ(BodyOf(document.Get()).Get(), BodyOf(document.Get()).Get());
}

class Outlines : public ::testing::Test {
protected:
    void SetUp() override {
        m_document = NewDocument();
        m_body = BodyOf(m_document.Get());
        for (const wchar_t* text : {L"one", L"two", L"three"}) m_items.push_back(AddOutline(m_body.Get(), text));
    }
    void TearDown() override {
        m_items.clear();
        m_body.Reset();
        m_document.Reset();
    }
    HRESULT Lookup(VARIANT key, ComPtr<IOPMLOutline>* found) {
        return m_body->get_Item(&key, found->ReleaseAndGetAddressOf());
    }

    ComPtr<IOPMLDocument> m_document;
    ComPtr<IOPMLOutlines> m_body;
    std::vector<ComPtr<IOPMLOutline>> m_items;
};

TEST_F(Outlines, ItemFindsByPositionFromOne) {
    ComPtr<IOPMLOutline> found;
    VARIANT key;
    const VARTYPE integers[] = {VT_I2, VT_I4, VT_UI2, VT_UI4, VT_INT, VT_UINT};
    for (VARTYPE type : integers) {
        ::VariantInit(&key);
        V_VT(&key) = type;
        V_I4(&key) = 0;
        V_I2(&key) = 3;  // the low bytes hold the value for every width
        EXPECT_HR(S_OK, Lookup(key, &found)) << type;
        EXPECT_EQ(m_items[2].Get(), found.Get()) << type;
    }
    EXPECT_HR(E_INVALIDARG, Lookup(Position(0), &found));
    EXPECT_EQ(nullptr, found.Get());  // cleared first
    EXPECT_HR(E_INVALIDARG, Lookup(Position(4), &found));
    EXPECT_HR(E_INVALIDARG, Lookup(Position(-1), &found));
    V_VT(&key) = VT_R8;
    V_R8(&key) = 1.0;
    EXPECT_HR(E_INVALIDARG, Lookup(key, &found));
    ::VariantInit(&key);
    EXPECT_HR(E_INVALIDARG, Lookup(key, &found));  // VT_EMPTY
    EXPECT_HR(E_POINTER, m_body->get_Item(nullptr, &found));
    key = Position(1);
    EXPECT_HR(E_POINTER, m_body->get_Item(&key, nullptr));
}

TEST_F(Outlines, ItemFindsByTextAndByIdentity) {
    ComPtr<IOPMLOutline> bare;
    ASSERT_HR(S_OK, m_body->AddNew(&bare));  // no "text" attribute
    ComPtr<IOPMLOutline> found;
    VARIANT key = Name(L"two");
    EXPECT_HR(S_OK, Lookup(key, &found));
    EXPECT_EQ(m_items[1].Get(), found.Get());
    ::VariantClear(&key);
    key = Name(L"Two");  // names compare exactly
    EXPECT_HR(kElementNotFound, Lookup(key, &found));
    ::VariantClear(&key);
    key = Name(L"");
    EXPECT_HR(kElementNotFound, Lookup(key, &found));
    ::VariantClear(&key);
    EXPECT_EQ(L"", AttributesText(bare.Get()));  // a lookup adds no "text"

    V_VT(&key) = VT_DISPATCH;
    V_DISPATCH(&key) = m_items[2].Get();
    EXPECT_HR(S_OK, Lookup(key, &found));
    EXPECT_EQ(m_items[2].Get(), found.Get());
    ComPtr<IUnknown> identity;
    m_items[0].As(&identity);
    V_VT(&key) = VT_UNKNOWN;
    V_UNKNOWN(&key) = identity.Get();
    EXPECT_HR(S_OK, Lookup(key, &found));
    EXPECT_EQ(m_items[0].Get(), found.Get());
    V_UNKNOWN(&key) = nullptr;
    EXPECT_HR(kElementNotFound, Lookup(key, &found));

    // Script hosts pass their variables by reference.
    VARIANT target = Position(2);
    V_VT(&key) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&key) = &target;
    EXPECT_HR(S_OK, Lookup(key, &found));
    EXPECT_EQ(m_items[1].Get(), found.Get());
    LONG position = 3;
    V_VT(&key) = VT_I4 | VT_BYREF;
    V_I4REF(&key) = &position;
    EXPECT_HR(S_OK, Lookup(key, &found));
    EXPECT_EQ(m_items[2].Get(), found.Get());
}

TEST_F(Outlines, RemoveClosesTheGapAndRefusesForeignOutlines) {
    ComPtr<IOPMLOutlines> other = SubItemsOf(m_items[0].Get());
    ComPtr<IOPMLOutline> foreign = AddOutline(other.Get(), L"two");
    VARIANT key;
    V_VT(&key) = VT_DISPATCH;
    V_DISPATCH(&key) = foreign.Get();
    EXPECT_HR(kElementNotFound, m_body->Remove(&key));
    EXPECT_EQ(3, CountOf(m_body.Get()));

    key = Name(L"two");
    EXPECT_HR(S_OK, m_body->Remove(&key));  // the body's own "two", not the nested one
    ::VariantClear(&key);
    EXPECT_EQ(L"text=\"one\"\n  text=\"two\"\ntext=\"three\"\n", TreeText(m_body.Get()));
    key = Position(2);
    EXPECT_HR(S_OK, m_body->Remove(&key));
    EXPECT_HR(E_INVALIDARG, m_body->Remove(&key));  // only one left
    EXPECT_HR(E_POINTER, m_body->Remove(nullptr));
    // A removed outline lives on while its holder keeps it.
    EXPECT_EQ(L"text=\"three\"", AttributesText(m_items[2].Get()));
    EXPECT_HR(S_OK, m_body->Clear());
    EXPECT_EQ(0, CountOf(m_body.Get()));
    EXPECT_EQ(1, CountOf(other.Get()));
}

TEST_F(Outlines, EnumerationIsASnapshotOfObjects) {
    ComPtr<IUnknown> unknown;
    ASSERT_HR(S_OK, m_body->get__NewEnum(&unknown));
    ComPtr<IEnumVARIANT> items;
    ASSERT_HR(S_OK, unknown.As(&items));
    EXPECT_HR(S_OK, m_body->Clear());  // not seen by the enumerator
    VARIANT got[4];
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, items->Next(4, got, &fetched));
    ASSERT_EQ(3u, fetched);
    for (ULONG i = 0; i < fetched; ++i) {
        EXPECT_EQ(VT_DISPATCH, V_VT(&got[i]));
        ComPtr<IOPMLOutline> outline;
        EXPECT_HR(S_OK, V_DISPATCH(&got[i])->QueryInterface(IID_PPV_ARGS(&outline)));
        EXPECT_EQ(m_items[i].Get(), outline.Get());
        ::VariantClear(&got[i]);
    }
}

TEST(Attributes, AddNewLookupAndRemove) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get());
    ComPtr<IOPMLAttributes> attributes = AttributesOf(outline.Get());
    ComPtr<IOPMLAttribute> fresh;
    ASSERT_HR(S_OK, attributes->AddNew(&fresh));
    EXPECT_EQ(L"", Text([&](BSTR* p) { return fresh->get_Name(p); }));
    EXPECT_EQ(L"", Text([&](BSTR* p) { return fresh->get_Value(p); }));
    AddAttribute(outline.Get(), L"b", L"2");
    AddAttribute(outline.Get(), L"a", L"1");
    EXPECT_EQ(L"=\"\" b=\"2\" a=\"1\"", AttributesText(outline.Get()));

    VARIANT key = Name(L"a");
    ComPtr<IOPMLAttribute> found;
    EXPECT_HR(S_OK, attributes->get_Item(&key, &found));
    EXPECT_EQ(L"1", Text([&](BSTR* p) { return found->get_Value(p); }));
    ::VariantClear(&key);
    V_VT(&key) = VT_DISPATCH;
    V_DISPATCH(&key) = fresh.Get();
    EXPECT_HR(S_OK, attributes->Remove(&key));
    EXPECT_HR(kElementNotFound, attributes->Remove(&key));
    key = Name(L"missing");
    EXPECT_HR(kElementNotFound, attributes->get_Item(&key, &found));
    EXPECT_EQ(nullptr, found.Get());
    ::VariantClear(&key);
    EXPECT_EQ(L"b=\"2\" a=\"1\"", AttributesText(outline.Get()));
    EXPECT_HR(S_OK, attributes->Clear());
    LONG count = -1;
    EXPECT_HR(S_OK, attributes->get_Count(&count));
    EXPECT_EQ(0, count);
}

TEST(OutlineProperties, ReadingAMissingPropertyAddsItsAttribute) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get());
    EXPECT_EQ(L"", Text([&](BSTR* p) { return outline->get_Text(p); }));
    EXPECT_EQ(L"text=\"\"", AttributesText(outline.Get()));
    EXPECT_EQ(L"", Text([&](BSTR* p) { return outline->get_Text(p); }));  // found, not added again
    EXPECT_EQ(L"text=\"\"", AttributesText(outline.Get()));

    VARIANT_BOOL flag = VARIANT_TRUE;
    EXPECT_TRUE(FAILED(outline->get_IsComment(&flag)));  // "" is no boolean
    EXPECT_EQ(VARIANT_FALSE, flag);
    EXPECT_TRUE(FAILED(outline->get_IsBreakPoint(&flag)));
    EXPECT_EQ(L"text=\"\" isComment=\"\" isBreakpoint=\"\"", AttributesText(outline.Get()));
    EXPECT_HR(E_POINTER, outline->get_Text(nullptr));
    EXPECT_HR(E_POINTER, outline->get_IsComment(nullptr));
}

TEST(OutlineProperties, WritesGoToTheAttributesWhereTheyStand) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get());
    AddAttribute(outline.Get(), L"isBreakpoint", L"true");
    AddAttribute(outline.Get(), L"type", L"old");
    BSTR value = ::SysAllocString(L"new");
    EXPECT_HR(S_OK, outline->put_type(value));
    EXPECT_HR(S_OK, outline->put_Text(value));
    ::SysFreeString(value);
    EXPECT_HR(S_OK, outline->put_IsComment(VARIANT_TRUE));
    EXPECT_EQ(L"isBreakpoint=\"true\" type=\"new\" text=\"new\" isComment=\"-1\"", AttributesText(outline.Get()));
    VARIANT_BOOL flag = VARIANT_FALSE;
    EXPECT_HR(S_OK, outline->get_IsComment(&flag));
    EXPECT_EQ(VARIANT_TRUE, flag);
    EXPECT_HR(S_OK, outline->get_IsBreakPoint(&flag));
    EXPECT_EQ(VARIANT_TRUE, flag);
    EXPECT_HR(S_OK, outline->put_IsBreakPoint(VARIANT_FALSE));
    EXPECT_HR(S_OK, outline->get_IsBreakPoint(&flag));
    EXPECT_EQ(VARIANT_FALSE, flag);
    EXPECT_EQ(L"isBreakpoint=\"0\" type=\"new\" text=\"new\" isComment=\"-1\"", AttributesText(outline.Get()));
}

TEST(OutlineProperties, PropertyBagsReadAndWriteAttributesAsText) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get(), L"t");
    ComPtr<IPropertyBag> bag;
    ASSERT_HR(S_OK, outline.As(&bag));
    VARIANT value;
    V_VT(&value) = VT_I4;
    V_I4(&value) = 42;
    EXPECT_HR(S_OK, bag->Write(L"count", &value));
    V_VT(&value) = VT_BOOL;
    V_BOOL(&value) = VARIANT_TRUE;
    EXPECT_HR(S_OK, bag->Write(L"isComment", &value));
    EXPECT_EQ(L"text=\"t\" count=\"42\" isComment=\"-1\"", AttributesText(outline.Get()));

    V_VT(&value) = VT_I4;  // the type wanted
    EXPECT_HR(S_OK, bag->Read(L"count", &value, nullptr));
    EXPECT_EQ(VT_I4, V_VT(&value));
    EXPECT_EQ(42, V_I4(&value));
    V_VT(&value) = VT_EMPTY;  // no preference: the text
    EXPECT_HR(S_OK, bag->Read(L"text", &value, nullptr));
    EXPECT_EQ(VT_BSTR, V_VT(&value));
    EXPECT_STREQ(L"t", V_BSTR(&value));
    ::VariantClear(&value);
    V_VT(&value) = VT_I4;
    EXPECT_TRUE(FAILED(bag->Read(L"text", &value, nullptr)));  // "t" is no number
    EXPECT_HR(E_INVALIDARG, bag->Read(L"missing", &value, nullptr));
    EXPECT_EQ(L"text=\"t\" count=\"42\" isComment=\"-1\"", AttributesText(outline.Get()));  // reads add nothing
    VARIANT_BOOL flag = VARIANT_FALSE;
    EXPECT_HR(S_OK, outline->get_IsComment(&flag));
    EXPECT_EQ(VARIANT_TRUE, flag);

    ComPtr<IPropertyBag2> bag2;
    ASSERT_HR(S_OK, outline.As(&bag2));
    ULONG count = 0;
    EXPECT_HR(S_OK, bag2->CountProperties(&count));
    EXPECT_EQ(3u, count);
    PROPBAG2 info[4] = {};
    ULONG described = 0;
    EXPECT_HR(S_OK, bag2->GetPropertyInfo(1, 4, info, &described));
    ASSERT_EQ(2u, described);
    EXPECT_STREQ(L"count", info[0].pstrName);
    EXPECT_STREQ(L"isComment", info[1].pstrName);
    EXPECT_EQ(VT_BSTR, info[0].vt);
    EXPECT_EQ(2u, info[1].dwHint);
    EXPECT_HR(E_INVALIDARG, bag2->GetPropertyInfo(3, 1, info + 2, &described));

    VARIANT values[2];
    HRESULT results[2] = {E_UNEXPECTED, E_UNEXPECTED};
    info[1].pstrName[0] = L'X';  // asks for "XsComment", which is missing
    info[0].vt = VT_I2;
    EXPECT_HR(E_FAIL, bag2->Read(2, info, nullptr, values, results));
    EXPECT_HR(S_OK, results[0]);
    EXPECT_HR(E_INVALIDARG, results[1]);
    EXPECT_EQ(VT_I2, V_VT(&values[0]));
    EXPECT_EQ(42, V_I2(&values[0]));
    ::VariantClear(&values[0]);
    for (PROPBAG2& entry : info) ::CoTaskMemFree(entry.pstrName);
    EXPECT_HR(E_NOTIMPL, bag2->LoadObject(L"count", 0, nullptr, nullptr));
}

TEST(ExpansionState, AListOfNumbersFromOne) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLExpansionState> expansion;
    ASSERT_HR(S_OK, HeaderOf(document.Get())->get_ExpansionState(&expansion));
    for (INT value : {5, -6, 7}) EXPECT_HR(S_OK, expansion->Add(value));
    LONG value = 0;
    EXPECT_HR(S_OK, expansion->get_Item(2, &value));
    EXPECT_EQ(-6, value);
    EXPECT_HR(E_INVALIDARG, expansion->get_Item(0, &value));
    EXPECT_HR(E_INVALIDARG, expansion->get_Item(4, &value));
    EXPECT_HR(S_OK, expansion->Remove(1));
    EXPECT_HR(E_INVALIDARG, expansion->Remove(3));

    LONG count = -1;
    EXPECT_HR(S_OK, expansion->get_Count(&count));
    EXPECT_EQ(2, count);
    EXPECT_HR(S_OK, expansion->Clear());
    EXPECT_HR(S_OK, expansion->get_Count(&count));
    EXPECT_EQ(0, count);
}

// Script hosts ask for _NewEnum as a method (Wine's JScript does) or as a
// property; every collection answers both.
TEST(Model, CollectionsGiveEnumeratorsToMethodCallsAndPropertyReads) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(document.Get()).Get(), L"x");
    ComPtr<IOPMLExpansionState> expansion;
    ASSERT_HR(S_OK, HeaderOf(document.Get())->get_ExpansionState(&expansion));
    ComPtr<IDispatch> collections[] = {BodyOf(document.Get()), AttributesOf(outline.Get()), expansion};
    for (auto& collection : collections) {
        for (WORD flags : {DISPATCH_METHOD, DISPATCH_PROPERTYGET, DISPATCH_METHOD | DISPATCH_PROPERTYGET}) {
            DISPPARAMS none = {nullptr, nullptr, 0, 0};
            VARIANT result;
            ::VariantInit(&result);
            EXPECT_HR(S_OK, collection->Invoke(DISPID_NEWENUM, IID_NULL, LOCALE_NEUTRAL, flags, &none, &result,
                                               nullptr, nullptr));
            ComPtr<IEnumVARIANT> items;
            EXPECT_TRUE(V_VT(&result) == VT_UNKNOWN && V_UNKNOWN(&result) &&
                        SUCCEEDED(V_UNKNOWN(&result)->QueryInterface(IID_PPV_ARGS(&items))));
            ::VariantClear(&result);
        }
    }
}

TEST(Model, OutlinesOutliveTheirDocument) {
    ComPtr<IOPMLOutline> kept;
    {
        ComPtr<IOPMLDocument> document = NewDocument();
        kept = AddOutline(BodyOf(document.Get()).Get(), L"kept");
        AddOutline(SubItemsOf(kept.Get()).Get(), L"child");
    }
    EXPECT_EQ(L"text=\"kept\"", AttributesText(kept.Get()));
    EXPECT_EQ(L"text=\"child\"\n", TreeText(SubItemsOf(kept.Get()).Get()));
}

// Readers of a missing property race to add its attribute: exactly one must.
TEST(Model, ConcurrentReadersAddOneAttributeAndWritersLoseNothing) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> body = BodyOf(document.Get());
    std::vector<ComPtr<IOPMLOutline>> outlines;
    for (int i = 0; i < 50; ++i) outlines.push_back(AddOutline(body.Get()));
    const int kThreads = 4;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            for (auto& outline : outlines) {
                BSTR text = nullptr;
                if (FAILED(outline->get_Text(&text))) ++failures;
                ::SysFreeString(text);
                ComPtr<IOPMLOutline> added;
                if (FAILED(SubItemsOf(outline.Get())->AddNew(&added))) ++failures;
            }
            ::CoUninitialize();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(0, failures.load());
    for (auto& outline : outlines) {
        EXPECT_EQ(L"text=\"\"", AttributesText(outline.Get()));
        EXPECT_EQ(kThreads, CountOf(SubItemsOf(outline.Get()).Get()));
    }
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
