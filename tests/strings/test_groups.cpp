// Search attribute groups and group sets as the application uses them: the
// built-in groups, lookup, merging on Add, removal and both persisted forms.
#include "stringstest.h"

namespace ky::test {
namespace {

ComPtr<ISearchAttributesGroup> NewGroup(const wchar_t* name, std::initializer_list<const wchar_t*> attributes) {
    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    com::Bstr text(name);
    EXPECT_HR(S_OK, group->put_Name(text));
    ComPtr<IStrings> strings;
    EXPECT_HR(S_OK, group->get_Attributes(&strings));
    for (const wchar_t* attribute : attributes) EXPECT_HR(S_OK, AddText(strings.Get(), attribute));
    return group;
}

std::wstring NameOf(ISearchAttributesGroup* group) {
    com::Bstr name;
    EXPECT_HR(S_OK, group->get_Name(name.Out()));
    return Text(name);
}

bool ActiveOf(ISearchAttributesGroup* group) {
    VARIANT_BOOL active = 7;
    EXPECT_HR(S_OK, group->get_Active(&active));
    return active == VARIANT_TRUE;
}

std::vector<std::wstring> AttributesOf(ISearchAttributesGroup* group) {
    ComPtr<IStrings> strings;
    EXPECT_HR(S_OK, group->get_Attributes(&strings));
    return strings ? Contents(strings.Get()) : std::vector<std::wstring>{};
}

ComPtr<ISearchAttributesGroup> ItemOf(ISearchAttributesGroupSet* set, VARIANT key) {
    ComPtr<ISearchAttributesGroup> group;
    EXPECT_HR(S_OK, set->get_Item(&key, &group));
    return group;
}

HRESULT ItemResult(ISearchAttributesGroupSet* set, VARIANT key) {
    ISearchAttributesGroup* group = reinterpret_cast<ISearchAttributesGroup*>(1);
    HRESULT hr = set->get_Item(&key, &group);
    if (SUCCEEDED(hr))
        group->Release();
    else
        EXPECT_EQ(nullptr, group);
    return hr;
}

// A group as a lookup key.
struct GroupArg : Arg {
    explicit GroupArg(ISearchAttributesGroup* group) : Arg(Arg::Typed{VT_UNKNOWN}) {
        V_UNKNOWN(this) = group;
        group->AddRef();
    }
};

TEST(Group, NameActiveAndTheCaseBlindAttributeList) {
    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    com::Bstr name(L"unset");
    EXPECT_HR(S_OK, group->get_Name(name.Out()));
    EXPECT_TRUE(name.IsNull());
    EXPECT_FALSE(ActiveOf(group.Get()));

    EXPECT_HR(E_INVALIDARG, group->put_Name(nullptr));
    com::Bstr empty(L"");
    EXPECT_HR(E_INVALIDARG, group->put_Name(empty));
    com::Bstr people(L"People");
    EXPECT_HR(S_OK, group->put_Name(people));
    EXPECT_EQ(L"People", NameOf(group.Get()));

    EXPECT_HR(S_OK, group->put_Active(1));  // only VARIANT_TRUE counts
    EXPECT_FALSE(ActiveOf(group.Get()));
    EXPECT_HR(S_OK, group->put_Active(VARIANT_TRUE));
    EXPECT_TRUE(ActiveOf(group.Get()));

    // The group's own collection, unique regardless of case.
    ComPtr<IStrings> a, b;
    ASSERT_HR(S_OK, group->get_Attributes(&a));
    ASSERT_HR(S_OK, group->get_Attributes(&b));
    EXPECT_EQ(a.Get(), b.Get());
    EXPECT_HR(S_OK, AddText(a.Get(), L"cn"));
    EXPECT_HR(S_FALSE, AddText(b.Get(), L"CN"));
    EXPECT_EQ((std::vector<std::wstring>{L"cn"}), AttributesOf(group.Get()));

    // None of this makes the group dirty.
    EXPECT_HR(S_FALSE, IsDirty(group.Get()));
    EXPECT_HR(E_POINTER, group->get_Name(nullptr));
    EXPECT_HR(E_POINTER, group->get_Active(nullptr));
    EXPECT_HR(E_POINTER, group->get_Attributes(nullptr));
}

TEST(GroupSet, ResetBringsTheFiveBuiltInGroupsInOrder) {
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    long count = -1;
    EXPECT_HR(S_OK, set->get_Count(&count));
    EXPECT_EQ(0, count);
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));

    EXPECT_HR(S_OK, set->Reset());
    EXPECT_HR(S_OK, IsDirty(set.Get()));
    EXPECT_HR(S_OK, set->get_Count(&count));
    ASSERT_EQ(5, count);

    struct Expected {
        const wchar_t* name;
        bool active;
        std::vector<std::wstring> attributes;
    };
    const Expected expected[] = {
        {L"Names",
         true,
         {L"name", L"cn", L"sn", L"displayName", L"givenName", L"uid", L"initials", L"gecos", L"ou", L"dc", L"o",
          L"group", L"dmdName"}},
        {L"Descriptions", true, {L"description", L"labeledURI"}},
        {L"Tel/Fax/Pager Numbers",
         false,
         {L"telephoneNumber", L"mobile", L"pager", L"facsimileTelephoneNumber", L"homePhone", L"telexNumber",
          L"destinationIndicator", L"gecos"}},
        {L"Addresses",
         false,
         {L"c", L"st", L"street", L"homePostalAddress", L"postalAddress", L"registeredAddress", L"postalCode",
          L"postOfficeBox", L"x121Address", L"mail", L"roomNumber", L"physicalDeliveryOfficeName", L"l"}},
        {L"Business Details",
         false,
         {L"businessCategory", L"title", L"manager", L"secretary", L"employeeType", L"employeeNumber",
          L"departmentNumber", L"userPKCS12", L"ou"}},
    };
    for (long i = 0; i < 5; ++i) {
        auto group = ItemOf(set.Get(), Arg(i));
        ASSERT_TRUE(group);
        EXPECT_EQ(expected[i].name, NameOf(group.Get()));
        EXPECT_EQ(expected[i].active, ActiveOf(group.Get())) << i;
        EXPECT_EQ(expected[i].attributes, AttributesOf(group.Get())) << i;
    }

    // A second Reset starts over rather than adding to what is there.
    auto extra = NewGroup(L"Extra", {L"x"});
    EXPECT_HR(S_OK, set->Add(extra.Get()));
    EXPECT_HR(S_OK, set->Reset());
    EXPECT_HR(S_OK, set->get_Count(&count));
    EXPECT_EQ(5, count);
}

struct ResetSet : ::testing::Test {
    void SetUp() override {
        set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
        ASSERT_HR(S_OK, set->Reset());
        SaveClean(set.Get());
    }
    long Count() {
        long count = -1;
        EXPECT_HR(S_OK, set->get_Count(&count));
        return count;
    }
    ComPtr<ISearchAttributesGroupSet> set;
};

TEST_F(ResetSet, GroupsAreFoundByNameInAnyCaseByPositionAndByGroup) {
    EXPECT_EQ(L"Names", NameOf(ItemOf(set.Get(), Arg(L"nAMES")).Get()));
    EXPECT_EQ(L"Addresses", NameOf(ItemOf(set.Get(), Arg(3L)).Get()));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(set.Get(), Arg(5L)));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(set.Get(), Arg(-1L)));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(set.Get(), Arg(L"Nobody")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(set.Get(), Arg(Arg::Typed{VT_EMPTY})));

    // By group: the member itself, or any group with its name.
    auto member = ItemOf(set.Get(), Arg(1L));
    EXPECT_EQ(member.Get(), ItemOf(set.Get(), GroupArg(member.Get())).Get());
    auto lookalike = NewGroup(L"DESCRIPTIONS", {});
    EXPECT_EQ(member.Get(), ItemOf(set.Get(), GroupArg(lookalike.Get())).Get());
    auto stranger = NewGroup(L"Stranger", {});
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(set.Get(), GroupArg(stranger.Get())));

    ISearchAttributesGroup* out = reinterpret_cast<ISearchAttributesGroup*>(1);
    EXPECT_HR(E_POINTER, set->get_Item(nullptr, &out));
    EXPECT_EQ(nullptr, out);
    Arg first(0L);
    EXPECT_HR(E_POINTER, set->get_Item(&first, nullptr));
    EXPECT_HR(E_POINTER, set->get_Count(nullptr));
    EXPECT_HR(E_POINTER, set->Add(nullptr));
}

TEST_F(ResetSet, AddingACaseVariantOfAMemberMergesItsNewAttributesOnly) {
    auto variant = NewGroup(L"aDDRESSES", {L"mail", L"co"});
    EXPECT_HR(S_OK, variant->put_Active(VARIANT_TRUE));
    EXPECT_HR(S_OK, set->Add(variant.Get()));

    EXPECT_EQ(5, Count());
    auto addresses = ItemOf(set.Get(), Arg(L"Addresses"));
    EXPECT_NE(variant.Get(), addresses.Get());  // the given group is not kept
    EXPECT_EQ(L"Addresses", NameOf(addresses.Get()));
    EXPECT_FALSE(ActiveOf(addresses.Get()));
    auto attributes = AttributesOf(addresses.Get());
    ASSERT_EQ(14u, attributes.size());
    EXPECT_EQ(L"co", attributes.back());
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));  // merging leaves the set's flag alone

    // Adding a member again changes nothing.
    EXPECT_HR(S_OK, set->Add(addresses.Get()));
    EXPECT_EQ(14u, AttributesOf(addresses.Get()).size());

    // A group with a new name is appended as it is.
    auto people = NewGroup(L"People", {L"cn"});
    EXPECT_HR(S_OK, set->Add(people.Get()));
    EXPECT_EQ(6, Count());
    EXPECT_EQ(people.Get(), ItemOf(set.Get(), Arg(5L)).Get());
    EXPECT_HR(S_OK, IsDirty(set.Get()));
}

TEST_F(ResetSet, RemoveTakesOneGroupOrAll) {
    Arg missing(L"Nobody");
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, set->Remove(&missing));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));

    Arg names(L"NAMES");
    EXPECT_HR(S_OK, set->Remove(&names));
    EXPECT_EQ(4, Count());
    EXPECT_EQ(L"Descriptions", NameOf(ItemOf(set.Get(), Arg(0L)).Get()));
    EXPECT_HR(S_OK, IsDirty(set.Get()));
    auto last = ItemOf(set.Get(), Arg(3L));
    GroupArg byGroup(last.Get());
    EXPECT_HR(S_OK, set->Remove(&byGroup));
    EXPECT_EQ(3, Count());

    EXPECT_HR(S_OK, set->Remove(nullptr));
    EXPECT_EQ(0, Count());
}

// --- Persisted forms ------------------------------------------------------------

Bytes VersionBytes() { return {0x03, 0x20, 0x11, 0x07}; }

TEST(GroupImage, AGroupIsWrittenAsVersionNameActiveAndItsCollectionsRecord) {
    auto group = NewGroup(L"G", {L"cn"});
    ASSERT_HR(S_OK, group->put_Active(VARIANT_TRUE));
    Bytes expected = VersionBytes();
    PutString(expected, L"G");
    PutUInt32(expected, 1);
    PutGuid(expected, CLSID_KyStrings);
    PutUInt32(expected, 1);
    PutString(expected, L"cn");
    EXPECT_EQ(expected, Saved(group.Get()));

    // The bound counts the collection's bound, the name and 6: not the
    // version, Active or the class identifier.
    EXPECT_EQ((4u + 4 + 6) + 2 + 6, SizeMax(group.Get()));
    ComPtr<IPersistStream> persist;
    ASSERT_HR(S_OK, group.As(&persist));
    CLSID clsid{};
    EXPECT_HR(S_OK, persist->GetClassID(&clsid));
    EXPECT_TRUE(IsEqualCLSID(CLSID_SearchAttributesGroup, clsid));
    EXPECT_HR(E_POINTER, persist->GetSizeMax(nullptr));
    EXPECT_HR(E_POINTER, persist->Save(nullptr, TRUE));
    EXPECT_HR(E_POINTER, persist->Load(nullptr));
}

TEST(GroupPersist, AReloadedGroupAcceptsCaseVariantDuplicates) {
    auto group = NewGroup(L"People", {L"cn", L"mail"});
    ASSERT_HR(S_OK, group->put_Active(VARIANT_TRUE));
    auto loaded = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    ASSERT_HR(S_OK, LoadFrom(loaded.Get(), Saved(group.Get())));
    EXPECT_EQ(L"People", NameOf(loaded.Get()));
    EXPECT_TRUE(ActiveOf(loaded.Get()));
    EXPECT_EQ((std::vector<std::wstring>{L"cn", L"mail"}), AttributesOf(loaded.Get()));

    // Uniqueness and compare flags are not persisted.
    ComPtr<IStrings> attributes;
    ASSERT_HR(S_OK, loaded->get_Attributes(&attributes));
    VARIANT_BOOL unique = VARIANT_TRUE;
    EXPECT_HR(S_OK, attributes->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_FALSE, unique);
    EXPECT_HR(S_OK, AddText(attributes.Get(), L"CN"));
    EXPECT_EQ(3u, AttributesOf(loaded.Get()).size());
}

TEST(GroupPersist, ABadVersionOrACutStreamLeavesTheGroupAsItWas) {
    auto group = NewGroup(L"Kept", {L"cn"});
    Bytes image = Saved(group.Get());
    auto target = NewGroup(L"Target", {L"uid"});

    Bytes badVersion = image;
    badVersion[0] ^= 1;
    EXPECT_HR(E_FAIL, LoadFrom(target.Get(), badVersion));
    for (size_t cut : {size_t{2}, size_t{8}, size_t{18}, image.size() - 1}) {
        HRESULT hr = LoadFrom(target.Get(), Bytes(image.begin(), image.begin() + static_cast<ptrdiff_t>(cut)));
        EXPECT_TRUE(FAILED(hr)) << cut;
    }
    EXPECT_EQ(L"Target", NameOf(target.Get()));
    EXPECT_EQ((std::vector<std::wstring>{L"uid"}), AttributesOf(target.Get()));
}

TEST(SetPersist, TheBuiltInSetSurvivesACompoundFile) {
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    ASSERT_HR(S_OK, set->Reset());
    Bytes image = Saved(set.Get());
    ASSERT_GT(image.size(), 28u);
    EXPECT_EQ(VersionBytes(), Bytes(image.begin(), image.begin() + 4));
    EXPECT_EQ((Bytes{5, 0, 0, 0}), Bytes(image.begin() + 4, image.begin() + 8));
    EXPECT_EQ(0, memcmp(&CLSID_SearchAttributesGroup, &image[8], sizeof(CLSID)));

    Docfile file;
    ASSERT_HR(S_OK, file.Save(set.Get()));
    EXPECT_HR(S_FALSE, IsDirty(set.Get()));
    auto loaded = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    ASSERT_HR(S_OK, loaded->Add(NewGroup(L"Old", {}).Get()));
    ASSERT_HR(S_OK, file.Load(loaded.Get()));
    EXPECT_HR(S_FALSE, IsDirty(loaded.Get()));
    long count = 0;
    EXPECT_HR(S_OK, loaded->get_Count(&count));
    ASSERT_EQ(5, count);
    for (long i = 0; i < 5; ++i) {
        auto original = ItemOf(set.Get(), Arg(i));
        auto copy = ItemOf(loaded.Get(), Arg(i));
        EXPECT_EQ(NameOf(original.Get()), NameOf(copy.Get()));
        EXPECT_EQ(ActiveOf(original.Get()), ActiveOf(copy.Get()));
        EXPECT_EQ(AttributesOf(original.Get()), AttributesOf(copy.Get()));
    }
    EXPECT_EQ(image, Saved(loaded.Get()));

    // 8, then each group's bound, class identifiers not counted.
    ULONGLONG expected = 8;
    for (long i = 0; i < 5; ++i) expected += SizeMax(ItemOf(set.Get(), Arg(i)).Get());
    EXPECT_EQ(expected, SizeMax(set.Get()));
}

TEST(SetPersist, LoadEmptiesFirstAndKeepsTheGroupsReadBeforeAFailure) {
    auto source = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    ASSERT_HR(S_OK, source->Reset());
    Bytes image = Saved(source.Get());
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    ASSERT_HR(S_OK, set->Reset());

    Bytes badVersion = image;
    badVersion[3] = 0x08;
    EXPECT_HR(E_FAIL, LoadFrom(set.Get(), badVersion));
    long count = -1;
    EXPECT_HR(S_OK, set->get_Count(&count));
    EXPECT_EQ(0, count);

    // Cut in the middle of the third group.
    size_t twoGroups = 8 + 2 * sizeof(CLSID) + Saved(ItemOf(source.Get(), Arg(0L)).Get()).size() +
                       Saved(ItemOf(source.Get(), Arg(1L)).Get()).size();
    EXPECT_HR(E_FAIL,
              LoadFrom(set.Get(), Bytes(image.begin(), image.begin() + static_cast<ptrdiff_t>(twoGroups + 30))));
    EXPECT_HR(S_OK, set->get_Count(&count));
    EXPECT_EQ(2, count);
    EXPECT_EQ(L"Descriptions", NameOf(ItemOf(set.Get(), Arg(1L)).Get()));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
