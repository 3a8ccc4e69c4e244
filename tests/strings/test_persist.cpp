// The collection's persisted form: exact images, the dirty flag, a round
// trip through a compound file, and what damaged or failing streams do.
#include "stringstest.h"

namespace ky::test {
namespace {

TEST(StringsImage, NullEmptyAndOrdinaryStringsAreWrittenExactly) {
    ComPtr<IStrings> empty = NewStrings();
    EXPECT_EQ((Bytes{0, 0, 0, 0}), Saved(empty.Get()));
    EXPECT_EQ(4u, SizeMax(empty.Get()));

    ComPtr<IStrings> strings = NewStrings();
    ASSERT_HR(S_OK, strings->Add(nullptr));
    ASSERT_HR(S_OK, AddText(strings.Get(), L""));
    ASSERT_HR(S_OK, AddText(strings.Get(), L"ab"));
    EXPECT_EQ((Bytes{3, 0, 0, 0,                          // count
                     0, 0, 0, 0,                          // null
                     2, 0, 0, 0, 0,   0,                  // empty
                     6, 0, 0, 0, 'a', 0, 'b', 0, 0, 0}),  // "ab"
              Saved(strings.Get()));
    // 4, then byte length + 6 per element: generous for the null one.
    EXPECT_EQ(4u + 6 + 6 + 10, SizeMax(strings.Get()));
}

TEST(StringsImage, LoadingGivesBackNullEmptyEmbeddedZerosAndOddLengths) {
    Bytes image;
    PutUInt32(image, 5);
    PutUInt32(image, 0);  // null
    PutString(image, L"");
    PutString(image, L"a\0b", 3);
    PutString(image, L"dup");
    PutUInt32(image, 5);  // three bytes of text and the terminator
    image.insert(image.end(), {'x', 0, 'y', 0, 0});

    ComPtr<IStrings> strings = NewStrings();
    ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));  // not applied by Load
    ASSERT_HR(S_OK, AddText(strings.Get(), L"dup"));            // emptied by Load
    EXPECT_HR(S_OK, LoadFrom(strings.Get(), image));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));

    std::vector<com::Bstr> items(5);
    for (long i = 0; i < 5; ++i) ASSERT_HR(S_OK, strings->get_Item(Arg(i), items[i].Out()));
    long count = 0;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    EXPECT_EQ(5, count);
    EXPECT_TRUE(items[0].IsNull());
    EXPECT_FALSE(items[1].IsNull());
    EXPECT_EQ(0u, items[1].ByteLength());
    EXPECT_EQ(6u, items[2].ByteLength());  // the embedded zero survives
    EXPECT_EQ(3u, items[4].ByteLength());
    // And saving writes the same image again.
    EXPECT_EQ(image, Saved(strings.Get()));
}

TEST(StringsPersist, ARoundTripThroughACompoundFileKeepsEverythingAndClearsDirtyFlags) {
    ComPtr<IStrings> strings = NewStrings();
    AddAll(strings.Get(), {L"cn", L"", L"given name", L"cn", L"\u00e9t\u00e9"});
    ASSERT_HR(S_OK, strings->Add(nullptr));
    EXPECT_HR(S_OK, IsDirty(strings.Get()));

    Docfile file;
    ASSERT_HR(S_OK, file.Save(strings.Get()));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));

    ComPtr<IStrings> loaded = NewStrings();
    AddAll(loaded.Get(), {L"old"});
    ASSERT_HR(S_OK, file.Load(loaded.Get()));
    EXPECT_HR(S_FALSE, IsDirty(loaded.Get()));
    EXPECT_EQ(Contents(strings.Get()), Contents(loaded.Get()));
    EXPECT_EQ(Saved(strings.Get()), Saved(loaded.Get()));

    // Saving without clearing keeps the flag; the settings are not persisted.
    ASSERT_HR(S_OK, AddText(loaded.Get(), L"more"));
    ASSERT_HR(S_OK, PersistOf(loaded.Get())->Save(MemoryStream().Get(), FALSE));
    EXPECT_HR(S_OK, IsDirty(loaded.Get()));
    VARIANT_BOOL unique = VARIANT_TRUE;
    EXPECT_HR(S_OK, loaded->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_FALSE, unique);

    CLSID clsid{};
    EXPECT_HR(S_OK, PersistOf(loaded.Get())->GetClassID(&clsid));
    EXPECT_TRUE(IsEqualCLSID(CLSID_KyStrings, clsid));
}

TEST(StringsPersist, DamagedStreamsFailWithWhatWasReadKept) {
    ComPtr<IStrings> strings = NewStrings();
    // Shorter than the count.
    EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), Bytes{1, 0, 0}));
    EXPECT_EQ(0u, Contents(strings.Get()).size());

    // Fewer records than counted.
    Bytes image;
    PutUInt32(image, 3);
    PutString(image, L"one");
    PutString(image, L"two");
    EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), image));
    EXPECT_EQ((std::vector<std::wstring>{L"one", L"two"}), Contents(strings.Get()));

    // A record length cut short.
    Bytes cut = image;
    cut.insert(cut.end(), {8, 0});
    EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), cut));
    EXPECT_EQ(2u, Contents(strings.Get()).size());

    // A body cut short: the stream steps back 4 bytes from where reading stopped.
    Bytes body = image;
    PutUInt32(body, 10);
    body.insert(body.end(), {'x', 0, 'y', 0});
    ComPtr<IStream> stream = MemoryStream(body);
    EXPECT_HR(E_FAIL, PersistOf(strings.Get())->Load(stream.Get()));
    EXPECT_EQ(body.size() - 4, Position(stream.Get()));
    EXPECT_EQ(2u, Contents(strings.Get()).size());

    // A length below the terminator's, and one far beyond the data.
    for (ULONG length : {1ul, 0xFFFFFFF0ul}) {
        Bytes bad;
        PutUInt32(bad, 1);
        PutUInt32(bad, length);
        bad.insert(bad.end(), {'z', 0, 0, 0});
        EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), bad)) << length;
        EXPECT_EQ(0u, Contents(strings.Get()).size());
    }
}

TEST(StringsPersist, WriteFailuresPassThroughAndShortWritesCannotSave) {
    ComPtr<IStrings> strings = NewStrings();
    AddAll(strings.Get(), {L"abc"});
    ComPtr<IPersistStream> persist = PersistOf(strings.Get());

    FullStream failing(6, false);
    EXPECT_HR(STG_E_MEDIUMFULL, persist->Save(&failing, TRUE));
    FullStream shortCount(2, true);
    EXPECT_HR(STG_E_CANTSAVE, persist->Save(&shortCount, TRUE));
    FullStream shortBody(10, true);
    EXPECT_HR(STG_E_CANTSAVE, persist->Save(&shortBody, TRUE));
    EXPECT_HR(S_OK, persist->IsDirty());  // nothing was saved

    EXPECT_HR(E_POINTER, persist->Save(nullptr, TRUE));
    EXPECT_HR(E_POINTER, persist->Load(nullptr));
    EXPECT_HR(E_POINTER, persist->GetSizeMax(nullptr));
    EXPECT_HR(E_POINTER, persist->GetClassID(nullptr));
}

}  // namespace
}  // namespace ky::test
