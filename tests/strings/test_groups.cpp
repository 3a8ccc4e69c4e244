// Search attribute groups and group sets as the application uses them: the
// built-in groups, lookup, merging on Add, removal and both persisted forms.
#include "stringstest.h"

namespace ky::test {
namespace {

const Bytes kVersion{0x03, 0x20, 0x11, 0x07};

ComPtr<ISearchAttributesGroup> NewGroup(const wchar_t* name, std::initializer_list<const wchar_t*> attributes) {
    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    EXPECT_HR(S_OK, group->put_Name(com::Bstr(name)));
    ComPtr<IStrings> strings;
    EXPECT_HR(S_OK, group->get_Attributes(&strings));
    AddAll(strings.Get(), attributes);
    return group;
}

ComPtr<ISearchAttributesGroupSet> NewSet(bool reset) {
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    EXPECT_HR(S_OK, reset ? set->Reset() : S_OK);
    return set;
}

// "Name, active: attributes" of a group, as a client reads it.
std::wstring Describe(ISearchAttributesGroup* group) {
    com::Bstr name;
    VARIANT_BOOL active = 7;
    ComPtr<IStrings> strings;
    EXPECT_HR(S_OK, group->get_Name(name.Out()));
    EXPECT_HR(S_OK, group->get_Active(&active));
    EXPECT_HR(S_OK, group->get_Attributes(&strings));
    std::wstring state = active == VARIANT_TRUE ? L"active" : active == VARIANT_FALSE ? L"inactive" : L"?";
    return Text(name) + L", " + state + L": " + Joined(strings.Get());
}

ComPtr<ISearchAttributesGroup> ItemOf(ISearchAttributesGroupSet* set, VARIANT key, HRESULT expected = S_OK) {
    ComPtr<ISearchAttributesGroup> group;
    EXPECT_HR(expected, set->get_Item(&key, &group));
    return group;
}

std::wstring Find(ISearchAttributesGroupSet* set, VARIANT key) {
    auto group = ItemOf(set, key);
    return group ? Describe(group.Get()) : L"";
}

long CountOf(ISearchAttributesGroupSet* set) {
    long count = -1;
    EXPECT_HR(S_OK, set->get_Count(&count));
    return count;
}

TEST(Group, NameActiveAndTheCaseBlindAttributeListLeaveTheGroupClean) {
    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    EXPECT_EQ(L", inactive: ", Describe(group.Get()));
    EXPECT_HR(E_INVALIDARG, group->put_Name(nullptr));
    EXPECT_HR(E_INVALIDARG, group->put_Name(com::Bstr(L"")));
    EXPECT_HR(S_OK, group->put_Name(com::Bstr(L"People")));
    EXPECT_HR(S_OK, group->put_Active(1));  // only VARIANT_TRUE counts
    EXPECT_EQ(L"People, inactive: ", Describe(group.Get()));
    EXPECT_HR(S_OK, group->put_Active(VARIANT_TRUE));

    // The group's own collection, unique regardless of case.
    ComPtr<IStrings> a, b;
    ASSERT_HR(S_OK, group->get_Attributes(&a));
    ASSERT_HR(S_OK, group->get_Attributes(&b));
    EXPECT_EQ(a.Get(), b.Get());
    EXPECT_HR(S_OK, AddText(a.Get(), L"cn"));
    EXPECT_HR(S_FALSE, AddText(b.Get(), L"CN"));
    EXPECT_EQ(L"People, active: cn", Describe(group.Get()));
    EXPECT_HR(S_FALSE, IsDirty(group.Get()));

    EXPECT_HR(E_POINTER, group->get_Attributes(nullptr));
}

TEST(GroupSet, ResetBringsTheFiveBuiltInGroupsInOrderTheFirstTwoActive) {
    auto set = NewSet(false);
    EXPECT_EQ(0, CountOf(set.Get()));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));
    EXPECT_HR(S_OK, set->Add(NewGroup(L"Extra", {L"x"}).Get()));
    SaveClean(set.Get());

    EXPECT_HR(S_OK, set->Reset());  // starts over rather than adding to what is there
    EXPECT_HR(S_OK, IsDirty(set.Get()));
    ASSERT_EQ(5, CountOf(set.Get()));
    const wchar_t* expected[] = {
        L"Names, active: name cn sn displayName givenName uid initials gecos ou dc o group dmdName",
        L"Descriptions, active: description labeledURI",
        L"Tel/Fax/Pager Numbers, inactive: telephoneNumber mobile pager facsimileTelephoneNumber homePhone "
        L"telexNumber destinationIndicator gecos",
        L"Addresses, inactive: c st street homePostalAddress postalAddress registeredAddress postalCode "
        L"postOfficeBox x121Address mail roomNumber physicalDeliveryOfficeName l",
        L"Business Details, inactive: businessCategory title manager secretary employeeType employeeNumber "
        L"departmentNumber userPKCS12 ou",
    };
    for (long i = 0; i < 5; ++i) EXPECT_EQ(expected[i], Find(set.Get(), Arg(i)));
}

TEST(GroupSet, GroupsAreFoundAndRemovedByNameInAnyCaseByPositionAndByGroup) {
    auto set = NewSet(true);
    SaveClean(set.Get());
    const std::wstring descriptions = L"Descriptions, active: description labeledURI";
    EXPECT_EQ(descriptions, Find(set.Get(), Arg(L"dESCRIPTIONS")));
    EXPECT_EQ(descriptions, Find(set.Get(), Arg(1L)));
    for (long position : {-1L, 5L}) ItemOf(set.Get(), Arg(position), E_KY_ELEMENTNOTFOUND);
    ItemOf(set.Get(), Arg(L"Nobody"), E_KY_ELEMENTNOTFOUND);
    ItemOf(set.Get(), Arg(), E_KY_ELEMENTNOTFOUND);
    // By group: the member itself, or any group with its name.
    auto member = ItemOf(set.Get(), Arg(1L));
    EXPECT_EQ(member.Get(), ItemOf(set.Get(), Arg(member.Get())).Get());
    EXPECT_EQ(member.Get(), ItemOf(set.Get(), Arg(NewGroup(L"DESCRIPTIONS", {}).Get())).Get());
    ItemOf(set.Get(), Arg(NewGroup(L"Stranger", {}).Get()), E_KY_ELEMENTNOTFOUND);

    auto remove = [&](VARIANT key) { return set->Remove(&key); };
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, remove(Arg(L"Nobody")));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));
    EXPECT_HR(S_OK, remove(Arg(L"NAMES")));
    EXPECT_HR(S_OK, IsDirty(set.Get()));
    EXPECT_EQ(descriptions, Find(set.Get(), Arg(0L)));
    EXPECT_HR(S_OK, remove(Arg(ItemOf(set.Get(), Arg(3L)).Get())));
    EXPECT_EQ(3, CountOf(set.Get()));
    EXPECT_HR(S_OK, set->Remove(nullptr));
    EXPECT_EQ(0, CountOf(set.Get()));

    ISearchAttributesGroup* out = reinterpret_cast<ISearchAttributesGroup*>(1);
    EXPECT_HR(E_POINTER, set->get_Item(nullptr, &out));
    EXPECT_EQ(nullptr, out);
    Arg first(0L);
    EXPECT_HR(E_POINTER, set->get_Item(&first, nullptr));
    EXPECT_HR(E_POINTER, set->Add(nullptr));
}

TEST(GroupSet, AddingACaseVariantOfAMemberMergesItsNewAttributesOnly) {
    auto set = NewSet(true);
    SaveClean(set.Get());
    const std::wstring before = Find(set.Get(), Arg(L"Addresses"));
    auto variant = NewGroup(L"aDDRESSES", {L"mail", L"co"});
    EXPECT_HR(S_OK, variant->put_Active(VARIANT_TRUE));
    EXPECT_HR(S_OK, set->Add(variant.Get()));
    EXPECT_EQ(5, CountOf(set.Get()));
    auto addresses = ItemOf(set.Get(), Arg(L"Addresses"));
    EXPECT_NE(variant.Get(), addresses.Get());  // the given group is not kept
    EXPECT_EQ(before + L" co", Describe(addresses.Get()));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));  // merging leaves the set's flag alone
    EXPECT_HR(S_OK, set->Add(addresses.Get()));  // a member again changes nothing
    EXPECT_EQ(before + L" co", Describe(addresses.Get()));

    auto people = NewGroup(L"People", {L"cn"});  // a new name is appended as it is
    EXPECT_HR(S_OK, set->Add(people.Get()));
    EXPECT_EQ(6, CountOf(set.Get()));
    EXPECT_EQ(people.Get(), ItemOf(set.Get(), Arg(5L)).Get());
    EXPECT_HR(S_OK, IsDirty(set.Get()));
}

TEST(GroupPersist, AGroupIsWrittenExactlyAndReloadedAcceptsCaseVariantDuplicates) {
    auto group = NewGroup(L"G", {L"cn"});
    ASSERT_HR(S_OK, group->put_Active(VARIANT_TRUE));
    Bytes expected = kVersion;
    PutString(expected, L"G");
    PutUInt32(expected, 1);  // active
    PutGuid(expected, CLSID_KyStrings);
    PutUInt32(expected, 1);
    PutString(expected, L"cn");
    EXPECT_EQ(expected, Saved(group.Get()));
    // The collection's bound, the name and 6: the version, Active and the class identifier uncounted.
    EXPECT_EQ((4u + 4 + 6) + 2 + 6, SizeMax(group.Get()));

    auto loaded = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    ASSERT_HR(S_OK, LoadFrom(loaded.Get(), expected));
    EXPECT_EQ(L"G, active: cn", Describe(loaded.Get()));
    // Uniqueness and compare flags are not persisted.
    ComPtr<IStrings> attributes;
    ASSERT_HR(S_OK, loaded->get_Attributes(&attributes));
    EXPECT_HR(S_OK, AddText(attributes.Get(), L"CN"));
    EXPECT_EQ(L"G, active: cn CN", Describe(loaded.Get()));

    // A bad version or a cut stream leaves the group as it was.
    Bytes badVersion = expected;
    badVersion[0] ^= 1;
    EXPECT_HR(E_FAIL, LoadFrom(loaded.Get(), badVersion));
    for (size_t cut : {size_t{2}, size_t{8}, size_t{18}, expected.size() - 1})
        EXPECT_TRUE(FAILED(LoadFrom(loaded.Get(), Bytes(expected.begin(), expected.begin() + cut)))) << cut;
    EXPECT_EQ(L"G, active: cn CN", Describe(loaded.Get()));
}

TEST(SetPersist, TheBuiltInSetRoundTripsAndLoadKeepsTheGroupsReadBeforeAFailure) {
    auto set = NewSet(true);
    Bytes image = Saved(set.Get());
    ASSERT_GT(image.size(), 28u);
    EXPECT_EQ(kVersion, Bytes(image.begin(), image.begin() + 4));
    EXPECT_EQ((Bytes{5, 0, 0, 0}), Bytes(image.begin() + 4, image.begin() + 8));
    EXPECT_EQ(0, memcmp(&CLSID_SearchAttributesGroup, &image[8], sizeof(CLSID)));
    // 8, then each group's bound, class identifiers not counted.
    ULONGLONG bound = 8;
    for (long i = 0; i < 5; ++i) bound += SizeMax(ItemOf(set.Get(), Arg(i)).Get());
    EXPECT_EQ(bound, SizeMax(set.Get()));

    auto loaded = NewSet(false);
    ASSERT_HR(S_OK, loaded->Add(NewGroup(L"Old", {}).Get()));
    ASSERT_HR(S_OK, LoadFrom(loaded.Get(), image));
    EXPECT_HR(S_FALSE, IsDirty(loaded.Get()));
    ASSERT_EQ(5, CountOf(loaded.Get()));
    for (long i = 0; i < 5; ++i) EXPECT_EQ(Find(set.Get(), Arg(i)), Find(loaded.Get(), Arg(i)));
    EXPECT_EQ(image, Saved(loaded.Get()));

    Bytes badVersion = image;
    badVersion[3] = 0x08;
    EXPECT_HR(E_FAIL, LoadFrom(loaded.Get(), badVersion));
    EXPECT_EQ(0, CountOf(loaded.Get()));
    // Cut in the middle of the third group.
    size_t twoGroups = 8 + 2 * sizeof(CLSID) + Saved(ItemOf(set.Get(), Arg(0L)).Get()).size() +
                       Saved(ItemOf(set.Get(), Arg(1L)).Get()).size();
    EXPECT_HR(E_FAIL, LoadFrom(loaded.Get(), Bytes(image.begin(), image.begin() + twoGroups + 30)));
    EXPECT_EQ(2, CountOf(loaded.Get()));
    EXPECT_EQ(L"Descriptions, active: description labeledURI", Find(loaded.Get(), Arg(1L)));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
