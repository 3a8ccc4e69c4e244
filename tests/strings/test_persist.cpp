// The collection's persisted form: exact images, the dirty flag, a round
// trip through a compound file, and what damaged or failing streams do.
#include "stringstest.h"

namespace ky::test {
namespace {

TEST(StringsImage, NullEmptyAndOrdinaryStringsAreWrittenExactlyAndReadBack) {
    ComPtr<IStrings> strings = NewStrings();
    EXPECT_EQ((Bytes{0, 0, 0, 0}), Saved(strings.Get()));
    EXPECT_EQ(4u, SizeMax(strings.Get()));
    ASSERT_HR(S_OK, strings->Add(nullptr));
    AddAll(strings.Get(), {L"", L"ab"});
    const Bytes image{3, 0, 0, 0,                          // count
                      0, 0, 0, 0,                          // null
                      2, 0, 0, 0, 0,   0,                  // empty
                      6, 0, 0, 0, 'a', 0, 'b', 0, 0, 0};   // "ab"
    EXPECT_EQ(image, Saved(strings.Get()));
    EXPECT_EQ(4u + 6 + 6 + 10, SizeMax(strings.Get()));  // generous for the null element

    // Load empties the list first and keeps duplicates, embedded zeros and odd lengths.
    Bytes more = image;
    more[0] = 6;
    PutString(more, L"a\0b", 3);
    PutString(more, L"ab");
    PutUInt32(more, 5);  // three bytes of text and the terminator
    more.insert(more.end(), {'x', 0, 'y', 0, 0});
    ComPtr<IStrings> loaded = NewStrings();
    ASSERT_HR(S_OK, loaded->put_UniqueStrings(VARIANT_TRUE));  // not applied by Load
    AddAll(loaded.Get(), {L"old"});
    EXPECT_HR(S_OK, LoadFrom(loaded.Get(), more));
    EXPECT_HR(S_FALSE, IsDirty(loaded.Get()));
    EXPECT_EQ(more, Saved(loaded.Get()));  // Save writes byte lengths: nothing was lost
}

TEST(StringsPersist, ARoundTripThroughACompoundFileKeepsEverythingAndClearsDirtyFlags) {
    ComPtr<IStorage> file;  // a temporary file, gone with its last reference
    const DWORD create = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_DELETEONRELEASE;
    ASSERT_HR(S_OK, ::StgCreateDocfile(nullptr, create, 0, &file));
    auto stream = [&](DWORD access) {
        ComPtr<IStream> stream;
        const DWORD mode = access | STGM_SHARE_EXCLUSIVE;
        EXPECT_HR(S_OK, access == STGM_READ ? file->OpenStream(L"Contents", nullptr, mode, 0, &stream)
                                            : file->CreateStream(L"Contents", mode | STGM_CREATE, 0, 0, &stream));
        return stream;
    };
    ComPtr<IStrings> strings = NewStrings();
    AddAll(strings.Get(), {L"cn", L"", L"given name", L"cn", L"\u00e9t\u00e9"});
    ASSERT_HR(S_OK, strings->Add(nullptr));
    ComPtr<IPersistStream> persist = PersistOf(strings.Get());
    ASSERT_HR(S_OK, persist->Save(stream(STGM_READWRITE).Get(), TRUE));
    EXPECT_HR(S_FALSE, persist->IsDirty());

    ComPtr<IStrings> loaded = NewStrings();
    AddAll(loaded.Get(), {L"old"});
    ASSERT_HR(S_OK, PersistOf(loaded.Get())->Load(stream(STGM_READ).Get()));
    EXPECT_HR(S_FALSE, IsDirty(loaded.Get()));
    EXPECT_EQ(Saved(strings.Get()), Saved(loaded.Get()));

    // A stream that refuses writes: its failure comes back and the flag stays.
    AddAll(strings.Get(), {L"more"});
    EXPECT_HR(STG_E_ACCESSDENIED, persist->Save(stream(STGM_READ).Get(), TRUE));
    EXPECT_HR(S_OK, persist->IsDirty());

    EXPECT_HR(E_POINTER, persist->Save(nullptr, TRUE));
    EXPECT_HR(E_POINTER, persist->Load(nullptr));
}

TEST(StringsPersist, DamagedStreamsFailWithWhatWasReadKept) {
    ComPtr<IStrings> strings = NewStrings();
    Bytes image;  // fewer records than counted
    PutUInt32(image, 3);
    PutString(image, L"one");
    PutString(image, L"two");
    EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), image));
    EXPECT_EQ(L"one two", Joined(strings.Get()));

    // A body cut short: the stream steps back 4 bytes from where reading stopped.
    PutUInt32(image, 10);
    image.insert(image.end(), {'x', 0, 'y', 0});
    ComPtr<IStream> stream = MemoryStream(image);
    EXPECT_HR(E_FAIL, PersistOf(strings.Get())->Load(stream.Get()));
    ULARGE_INTEGER position{};
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &position);
    EXPECT_EQ(image.size() - 4, position.QuadPart);
    EXPECT_EQ(L"one two", Joined(strings.Get()));

    // A length below the terminator's, and one far beyond the data.
    for (ULONG length : {1ul, 0xFFFFFFF0ul}) {
        Bytes bad;
        PutUInt32(bad, 1);
        PutUInt32(bad, length);
        bad.insert(bad.end(), {'z', 0, 0, 0});
        EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), bad)) << length;
        EXPECT_EQ(L"", Joined(strings.Get()));
    }
}

}  // namespace
}  // namespace ky::test
