// The hash behind the lock's name. Every process that shares a file must
// compute the same sixteen digits, so the function is checked against
// values computed elsewhere:
//   - "", "a" and "foobar" are the published 64-bit FNV-1 test vectors of
//     the FNV reference test suite;
//   - the paths were hashed by a separate Python implementation
//     (h = h * 0x100000001B3 mod 2**64, then h ^= byte, from
//     0xCBF29CE484222325) over path.lower().encode("utf-16-le").
#include "kytest.h"
#include "sharedconfig/sharedfile.h"

namespace ky::test {
namespace {

std::wstring Digits(const std::wstring& path) { return sharedfile::PathHashDigits(path.data(), path.size()); }

TEST(PathHash, MatchesIndependentlyComputedValuesWhateverTheCase) {
    EXPECT_EQ(0xCBF29CE484222325ull, sharedfile::Fnv1Hash64("", 0));
    EXPECT_EQ(0xAF63BD4C8601B7BEull, sharedfile::Fnv1Hash64("a", 1));
    EXPECT_EQ(0x340D8765A4DDA9C2ull, sharedfile::Fnv1Hash64("foobar", 6));

    EXPECT_EQ(L"FB3D620478925F4A", Digits(L"c:\\settings\\shared.cfg"));
    EXPECT_EQ(L"08326707B4EB37DA", Digits(L"a"));  // leading zeros kept
    EXPECT_EQ(L"1390FCB694872DE1", Digits(L"\\\\server\\share\\tessaly\\shared.cfg"));
    EXPECT_EQ(L"F4685FDE2B47D562", Digits(L"c:\\donn\u00e9es\\r\u00e9glages.cfg"));
    // Spellings that differ only in case share their digits.
    EXPECT_EQ(L"FB3D620478925F4A", Digits(L"C:\\Settings\\SHARED.cfg"));
    EXPECT_EQ(L"1390FCB694872DE1", Digits(L"\\\\SERVER\\Share\\Tessaly\\Shared.CFG"));
    EXPECT_EQ(L"F4685FDE2B47D562", Digits(L"C:\\DONN\u00c9ES\\R\u00e9glages.CFG"));
    // Other spellings of the same file are other names (no normalisation).
    EXPECT_NE(Digits(L"c:\\settings\\shared.cfg"), Digits(L"c:/settings/shared.cfg"));
}

}  // namespace
}  // namespace ky::test
