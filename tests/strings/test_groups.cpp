// Search attribute groups and group sets as the application uses them: the
// built-in groups, lookup, merging on Add, removal, persisted forms and
// damaged images of all three classes.
#include "stringstest.h"

namespace ky::test {
namespace {

ComPtr<IStrings> AttributesOf(ISearchAttributesGroup* group) {
    ComPtr<IStrings> strings;
    EXPECT_HR(S_OK, group->get_Attributes(&strings));
    return strings;
}

ComPtr<ISearchAttributesGroup> NewGroup(const wchar_t* name, std::initializer_list<const wchar_t*> attributes) {
    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    EXPECT_HR(S_OK, group->put_Name(com::Bstr(name)));
    AddAll(AttributesOf(group.Get()).Get(), attributes);
    return group;
}

ComPtr<ISearchAttributesGroupSet> NewSet() {
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    EXPECT_HR(S_OK, set->Reset());
    return set;
}

ComPtr<ISearchAttributesGroup> ItemOf(ISearchAttributesGroupSet* set, VARIANT key, HRESULT expected = S_OK) {
    ComPtr<ISearchAttributesGroup> group;
    EXPECT_HR(expected, set->get_Item(&key, &group));
    return group;
}

// "Name, active: attributes" of a group, as a client reads it; a line each for a set.
std::wstring Describe(ISearchAttributesGroup* group) {
    com::Bstr name;
    VARIANT_BOOL active = 7;
    EXPECT_HR(S_OK, group->get_Name(name.Out()));
    EXPECT_HR(S_OK, group->get_Active(&active));
    std::wstring state = active == VARIANT_TRUE ? L"active" : active == VARIANT_FALSE ? L"inactive" : L"?";
    return Text(name) + L", " + state + L": " + Joined(AttributesOf(group).Get());
}
std::wstring Describe(ISearchAttributesGroupSet* set) {
    long count = -1;
    EXPECT_HR(S_OK, set->get_Count(&count));
    std::wstring text;
    for (long i = 0; i < count; ++i) text += Describe(ItemOf(set, Arg(i)).Get()) + L"\n";
    return text;
}

TEST(GroupSet, ResetBringsTheFiveBuiltInGroupsInOrderTheFirstTwoActive) {
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    EXPECT_HR(S_OK, set->Add(NewGroup(L"Extra", {L"x"}).Get()));
    EXPECT_HR(S_OK, set->Reset());  // starts over rather than adding to what is there
    EXPECT_EQ(L"Names, active: name cn sn displayName givenName uid initials gecos ou dc o group dmdName\n"
              L"Descriptions, active: description labeledURI\n"
              L"Tel/Fax/Pager Numbers, inactive: telephoneNumber mobile pager facsimileTelephoneNumber homePhone "
              L"telexNumber destinationIndicator gecos\n"
              L"Addresses, inactive: c st street homePostalAddress postalAddress registeredAddress postalCode "
              L"postOfficeBox x121Address mail roomNumber physicalDeliveryOfficeName l\n"
              L"Business Details, inactive: businessCategory title manager secretary employeeType employeeNumber "
              L"departmentNumber userPKCS12 ou\n",
              Describe(set.Get()));
}

// Lookup by name in any case, by position, by the member itself or any group
// of its name. Add merges a case variant's new attributes into the member
// (leaving the set clean) and appends a group of a new name as it is.
TEST(GroupSet, GroupsAreFoundByNamePositionOrGroupAndAddMergesByName) {
    auto set = NewSet();
    auto member = ItemOf(set.Get(), Arg(1L));
    const std::pair<Arg, ISearchAttributesGroup*> cases[] = {
        {Arg(L"dESCRIPTIONS"), member.Get()}, {Arg(member.Get()), member.Get()},
        {Arg(NewGroup(L"DESCRIPTIONS", {}).Get()), member.Get()}, {Arg(-1L), nullptr}, {Arg(5L), nullptr},
        {Arg(L"Nobody"), nullptr}, {Arg(), nullptr}, {Arg(NewGroup(L"Stranger", {}).Get()), nullptr},
    };
    for (const auto& [key, expected] : cases)
        EXPECT_EQ(expected, ItemOf(set.Get(), key, expected ? S_OK : E_KY_ELEMENTNOTFOUND).Get());
    SaveClean(set.Get());
    auto variant = NewGroup(L"dESCRIPTIONS", {L"description", L"co"});
    EXPECT_HR(S_FALSE, AddText(AttributesOf(variant.Get()).Get(), L"CO"));  // unique in any case
    EXPECT_HR(S_OK, variant->put_Active(1));  // only VARIANT_TRUE activates
    EXPECT_HR(S_OK, set->Add(variant.Get()));
    EXPECT_EQ(L"Descriptions, active: description labeledURI co", Describe(ItemOf(set.Get(), Arg(1L)).Get()));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));
    auto people = NewGroup(L"People", {L"cn"});
    EXPECT_HR(S_OK, set->Add(people.Get()));
    EXPECT_EQ(people.Get(), ItemOf(set.Get(), Arg(5L)).Get());
    EXPECT_HR(S_OK, IsDirty(set.Get()));
}

// Remove takes a name, a position or a group, and nothing means all.
TEST(GroupSet, RemoveTakesANamePositionOrGroup) {
    auto set = NewSet();
    SaveClean(set.Get());
    Arg nobody(L"Nobody"), names(L"NAMES"), addresses(1L), byGroup(ItemOf(set.Get(), Arg(2L)).Get());
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, set->Remove(&nobody));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));
    for (Arg* key : {&names, &byGroup, &addresses}) EXPECT_HR(S_OK, set->Remove(key));
    EXPECT_HR(S_OK, IsDirty(set.Get()));
    EXPECT_EQ(0u, Describe(set.Get()).find(L"Descriptions, active: description labeledURI\nBusiness Details,"));
    EXPECT_HR(S_OK, set->Remove(nullptr));
    EXPECT_EQ(L"", Describe(set.Get()));
}

// A group: version, name, Active, then its collection as class identifier
// and image; uniqueness is not persisted. A set: version, count, then each
// group as class identifier and image; Load replaces the groups, and keeps
// those read before a failure.
TEST(GroupPersist, GroupsAndSetsAreWrittenExactlyAndReadBack) {
    auto group = NewGroup(L"G", {L"cn"});
    ASSERT_HR(S_OK, group->put_Active(VARIANT_TRUE));
    Bytes expected{0x03, 0x20, 0x11, 0x07};
    PutString(expected, L"G");
    PutUInt32(expected, 1);
    const BYTE* clsid = reinterpret_cast<const BYTE*>(&CLSID_KyStrings);
    expected.insert(expected.end(), clsid, clsid + sizeof(CLSID));
    PutUInt32(expected, 1);
    PutString(expected, L"cn");
    EXPECT_EQ(expected, Saved(group.Get()));
    auto loaded = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    ASSERT_HR(S_OK, LoadFrom(loaded.Get(), expected));
    EXPECT_HR(S_OK, AddText(AttributesOf(loaded.Get()).Get(), L"CN"));
    EXPECT_EQ(L"G, active: cn CN", Describe(loaded.Get()));

    auto set = NewSet(), copy = NewSet();
    const Bytes image = Saved(set.Get());
    ASSERT_HR(S_OK, LoadFrom(copy.Get(), image));
    const std::wstring all = Describe(set.Get());
    EXPECT_EQ(all, Describe(copy.Get()));
    size_t twoGroups = 8 + 2 * sizeof(CLSID) + Saved(ItemOf(set.Get(), Arg(0L)).Get()).size() +
                       Saved(ItemOf(set.Get(), Arg(1L)).Get()).size();
    EXPECT_HR(E_FAIL, LoadFrom(copy.Get(), Bytes(image.begin(), image.begin() + twoGroups + 30)));
    EXPECT_EQ(all.substr(0, all.find(L"Tel/")), Describe(copy.Get()));
}

// Damaged images of all three classes: every truncation fails, and so do
// string lengths below the terminator's or far beyond the data, with the
// elements read before kept; records that name the set class again and
// again are refused, not followed.
TEST(DamagedStreams, TruncatedAndEndlesslyNestedImagesAreRefused) {
    auto strings = NewStrings();
    AddAll(strings.Get(), {L"", L"cn"});
    const std::pair<const CLSID*, Bytes> images[] = {
        {&CLSID_KyStrings, Saved(strings.Get())},
        {&CLSID_SearchAttributesGroup, Saved(NewGroup(L"P", {L"cn"}).Get())},
        {&CLSID_SearchAttributesGroupSet, Saved(NewSet().Get())}};
    for (const auto& [clsid, bytes] : images) {
        for (size_t length = 0; length < bytes.size(); ++length)
            EXPECT_HR(E_FAIL, LoadFrom(Create<IUnknown>(*clsid).Get(), Bytes(bytes.begin(), bytes.begin() + length)));
    }
    for (ULONG length : {1ul, 0xFFFFFFF0ul}) {
        Bytes bad = images[0].second;
        PutUInt32(bad, length);
        bad.insert(bad.end(), {'z', 0, 0, 0});
        bad[0] = 3;
        EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), bad));
        EXPECT_EQ(L" cn", Joined(strings.Get()));
    }
    Bytes nested;
    for (int level = 0; level < 100000; ++level) {
        PutUInt32(nested, 0x07112003);
        PutUInt32(nested, 1);
        const BYTE* clsid = reinterpret_cast<const BYTE*>(&CLSID_SearchAttributesGroupSet);
        nested.insert(nested.end(), clsid, clsid + sizeof(CLSID));
    }
    EXPECT_HR(E_FAIL, LoadFrom(Create<IUnknown>(CLSID_SearchAttributesGroupSet).Get(), nested));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
