// Damaged persisted images for all three classes: every truncation and a
// few thousand mutations. Load must answer a failure or a success without
// crashing or leaking, and whatever it accepts must save and load again
// to the same image.
#include <random>

#include "stringstest.h"

namespace ky::test {
namespace {

struct Image {
    const char* name;
    const CLSID* clsid;
    Bytes bytes;
};

std::vector<Image> ValidImages() {
    auto strings = NewStrings();
    strings->Add(nullptr);
    AddAll(strings.Get(), {L"", L"cn", L"\u00e9t\u00e9", L"mail"});
    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    group->put_Name(com::Bstr(L"People"));
    ComPtr<IStrings> attributes;
    group->get_Attributes(&attributes);
    AddAll(attributes.Get(), {L"cn", L"sn", L"uid"});
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    set->Reset();
    return {{"strings", &CLSID_KyStrings, Saved(strings.Get())},
            {"group", &CLSID_SearchAttributesGroup, Saved(group.Get())},
            {"set", &CLSID_SearchAttributesGroupSet, Saved(set.Get())}};
}

// A flipped bit, a 32-bit field overwritten with a telling value, or a range removed or repeated.
Bytes Mutate(Bytes bytes, std::mt19937& random) {
    static const ULONG kFields[] = {0, 1, 2, 3, 5, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 0x07112003};
    if (bytes.size() < 4) return bytes;
    auto at = [&](size_t size) { return random() % (bytes.size() - size); };
    size_t from = at(0), length = std::min<size_t>(1 + random() % 40, bytes.size() - from);
    switch (random() % 4) {
        case 0:
            bytes[from] ^= BYTE(1u << (random() % 8));
            break;
        case 1: {
            ULONG value = random() % 3 ? kFields[random() % std::size(kFields)] : ULONG(random());
            size_t offset = at(3) & ~size_t{3};
            for (int i = 0; i < 4; ++i) bytes[offset + i] = BYTE(value >> (8 * i));
            break;
        }
        case 2:
            bytes.erase(bytes.begin() + from, bytes.begin() + from + length);
            break;
        default: {
            Bytes piece(bytes.begin() + from, bytes.begin() + from + length);
            bytes.insert(bytes.begin() + at(0), piece.begin(), piece.end());
        }
    }
    return bytes;
}

// Loads `bytes` into a fresh object of the class and returns the result.
// When Load succeeds, the object's saved image must load and save again
// unchanged.
HRESULT LoadChecked(const Image& image, const Bytes& bytes) {
    ComPtr<IUnknown> object = Create<IUnknown>(*image.clsid);
    HRESULT hr = LoadFrom(object.Get(), bytes);
    if (hr == S_OK) {
        Bytes saved = Saved(object.Get());
        ComPtr<IUnknown> again = Create<IUnknown>(*image.clsid);
        EXPECT_HR(S_OK, LoadFrom(again.Get(), saved));
        EXPECT_EQ(saved, Saved(again.Get()));
    }
    return hr;
}

TEST(DamagedStreams, EveryTruncationFailsAndMutatedImagesNeverCrashOrLeak) {
    std::mt19937 random(0x07112003);
    for (const Image& image : ValidImages()) {
        SCOPED_TRACE(image.name);
        EXPECT_HR(S_OK, LoadChecked(image, image.bytes));
        for (size_t length = 0; length < image.bytes.size(); ++length)
            EXPECT_HR(E_FAIL, LoadChecked(image, Bytes(image.bytes.begin(), image.bytes.begin() + length))) << length;

        int loaded = 0, failed = 0;
        for (int round = 0; round < 1200; ++round) {
            Bytes bytes = Mutate(image.bytes, random);
            if (random() % 4 == 0) bytes = Mutate(bytes, random);
            HRESULT hr = LoadChecked(image, bytes);
            // A short read or a bad version, a recorded class that is not there or not the right kind, memory.
            ASSERT_TRUE(hr == S_OK || hr == E_FAIL || hr == E_OUTOFMEMORY || hr == E_NOINTERFACE ||
                        hr == REGDB_E_CLASSNOTREG || hr == CLASS_E_CLASSNOTAVAILABLE)
                << "round " << round << ": " << Hex(hr);
            loaded += hr == S_OK;
            failed += hr == E_FAIL;
        }
        // Both outcomes occur: the mutations are neither all harmless nor all fatal.
        EXPECT_GT(loaded, 0);
        EXPECT_GT(failed, 0);
    }
}

TEST(DamagedStreams, ObjectRecordsNestedWithoutEndAreRefused) {
    // A set whose one group record names the set class again, and again...
    Bytes bytes;
    for (int level = 0; level < 100000; ++level) {
        PutUInt32(bytes, 0x07112003);
        PutUInt32(bytes, 1);
        PutGuid(bytes, CLSID_SearchAttributesGroupSet);
    }
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    EXPECT_HR(E_FAIL, LoadFrom(set.Get(), bytes));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
