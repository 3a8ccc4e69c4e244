// Damaged persisted images for all three classes: every truncation and a
// few thousand mutations. Load must answer a failure or a success without
// crashing or leaking, and whatever it accepts must save and load again
// to the same image.
#include <random>
#include <set>

#include "stringstest.h"

namespace ky::test {
namespace {

struct Image {
    const char* name;
    const CLSID* clsid;
    Bytes bytes;
};

std::vector<Image> ValidImages() {
    std::vector<Image> images;

    auto strings = NewStrings();
    strings->Add(nullptr);
    AddAll(strings.Get(), {L"", L"cn", L"\u00e9t\u00e9", L"mail"});
    images.push_back({"strings", &CLSID_KyStrings, Saved(strings.Get())});

    auto group = Create<ISearchAttributesGroup>(CLSID_SearchAttributesGroup);
    com::Bstr name(L"People");
    group->put_Name(name);
    ComPtr<IStrings> attributes;
    group->get_Attributes(&attributes);
    AddAll(attributes.Get(), {L"cn", L"sn", L"uid"});
    images.push_back({"group", &CLSID_SearchAttributesGroup, Saved(group.Get())});

    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    set->Reset();
    images.push_back({"set", &CLSID_SearchAttributesGroupSet, Saved(set.Get())});
    return images;
}

Bytes Mutate(const Bytes& original, std::mt19937& random) {
    Bytes bytes = original;
    auto at = [&](size_t size) { return bytes.size() > size ? random() % (bytes.size() - size) : 0; };
    static const ULONG kFields[] = {0, 1, 2, 3, 5, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 0x07112003};
    switch (random() % 5) {
        case 0:  // a flipped bit or two
            for (int i = 1 + random() % 2; i > 0 && !bytes.empty(); --i) bytes[at(0)] ^= BYTE(1u << (random() % 8));
            break;
        case 1: {  // a 32-bit field overwritten with a telling value
            if (bytes.size() < 4) break;
            ULONG value = random() % 3 ? kFields[random() % (sizeof(kFields) / sizeof(kFields[0]))] : ULONG(random());
            size_t offset = at(4) & ~size_t{3};
            for (int i = 0; i < 4; ++i) bytes[offset + i] = BYTE(value >> (8 * i));
            break;
        }
        case 2: {  // a range removed
            size_t from = at(0), length = 1 + random() % 24;
            bytes.erase(bytes.begin() + static_cast<ptrdiff_t>(from),
                        bytes.begin() + static_cast<ptrdiff_t>(std::min(bytes.size(), from + length)));
            break;
        }
        case 3: {  // a range repeated
            size_t from = at(0), length = std::min<size_t>(1 + random() % 40, bytes.size() - from);
            Bytes piece(bytes.begin() + static_cast<ptrdiff_t>(from),
                        bytes.begin() + static_cast<ptrdiff_t>(from + length));
            bytes.insert(bytes.begin() + static_cast<ptrdiff_t>(at(0)), piece.begin(), piece.end());
            break;
        }
        default:  // cut, then a byte changed
            bytes.resize(random() % (bytes.size() + 1));
            if (!bytes.empty()) bytes[at(0)] = BYTE(random());
    }
    return bytes;
}

// Loads `bytes` into a fresh object of the class and returns the result.
// When Load succeeds, the object's saved image must load and save again
// unchanged.
HRESULT LoadChecked(const Image& image, const Bytes& bytes) {
    ComPtr<IUnknown> object = Create<IUnknown>(*image.clsid);
    if (!object) return E_UNEXPECTED;
    HRESULT hr = LoadFrom(object.Get(), bytes);
    if (hr == S_OK) {
        Bytes saved = Saved(object.Get());
        ComPtr<IUnknown> again = Create<IUnknown>(*image.clsid);
        EXPECT_HR(S_OK, LoadFrom(again.Get(), saved));
        EXPECT_EQ(saved, Saved(again.Get()));
    }
    return hr;
}

// Results a damaged stream may give: a short read or a bad version, a
// recorded class that is not there or not the right kind, memory.
bool Acceptable(HRESULT hr) {
    return hr == S_OK || hr == E_FAIL || hr == E_OUTOFMEMORY || hr == E_NOINTERFACE || hr == REGDB_E_CLASSNOTREG ||
           hr == CLASS_E_CLASSNOTAVAILABLE;
}

TEST(DamagedStreams, EveryTruncationFailsCleanly) {
    for (const Image& image : ValidImages()) {
        SCOPED_TRACE(image.name);
        EXPECT_HR(S_OK, LoadChecked(image, image.bytes));
        for (size_t length = 0; length < image.bytes.size(); ++length) {
            HRESULT hr =
                LoadChecked(image, Bytes(image.bytes.begin(), image.bytes.begin() + static_cast<ptrdiff_t>(length)));
            EXPECT_TRUE(FAILED(hr) && Acceptable(hr)) << length << ": " << Hex(hr);
        }
    }
}

TEST(DamagedStreams, MutatedImagesNeverCrashOrLeak) {
    std::mt19937 random(0x07112003);
    for (const Image& image : ValidImages()) {
        SCOPED_TRACE(image.name);
        std::set<HRESULT> seen;
        int loaded = 0;
        for (int round = 0; round < 1200; ++round) {
            Bytes bytes = Mutate(image.bytes, random);
            if (random() % 4 == 0) bytes = Mutate(bytes, random);
            HRESULT hr = LoadChecked(image, bytes);
            ASSERT_TRUE(Acceptable(hr)) << "round " << round << ": " << Hex(hr);
            seen.insert(hr);
            loaded += hr == S_OK;
        }
        // Both outcomes occur: the mutations are neither all harmless nor all fatal.
        EXPECT_GT(loaded, 0);
        EXPECT_TRUE(seen.count(E_FAIL));
    }
}

TEST(DamagedStreams, ObjectRecordsNestedWithoutEndAreRefused) {
    // A set whose one group record names the set class again, and again...
    Bytes bytes;
    for (int level = 0; level < 2000; ++level) {
        PutUInt32(bytes, 0x07112003);
        PutUInt32(bytes, 1);
        PutGuid(bytes, CLSID_SearchAttributesGroupSet);
    }
    auto set = Create<ISearchAttributesGroupSet>(CLSID_SearchAttributesGroupSet);
    EXPECT_HR(E_FAIL, LoadFrom(set.Get(), bytes));
    long count = -1;
    EXPECT_HR(S_OK, set->get_Count(&count));
    EXPECT_EQ(0, count);
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
