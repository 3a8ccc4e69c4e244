// The hash behind the lock's name: every process that shares a file must
// compute the same sixteen digits. "", "a" and "foobar" are the published
// 64-bit FNV-1 test vectors; the paths were hashed by a separate Python
// implementation over path.lower().encode("utf-16-le").
#include "kytest.h"
#include "sharedconfig/sharedfile.h"

namespace ky::test {
namespace {

TEST(PathHash, MatchesIndependentlyComputedValuesWhateverTheCase) {
    EXPECT_EQ(0xCBF29CE484222325ull, sharedfile::Fnv1Hash64("", 0));
    EXPECT_EQ(0xAF63BD4C8601B7BEull, sharedfile::Fnv1Hash64("a", 1));
    EXPECT_EQ(0x340D8765A4DDA9C2ull, sharedfile::Fnv1Hash64("foobar", 6));
    // Spellings that differ only in case share their digits; others do not.
    const struct { std::wstring path; const wchar_t* digits; } cases[] = {
        {L"c:\\settings\\shared.cfg", L"FB3D620478925F4A"}, {L"C:\\Settings\\SHARED.cfg", L"FB3D620478925F4A"},
        {L"a", L"08326707B4EB37DA"},  // leading zeros kept
        {L"\\\\server\\share\\tessaly\\shared.cfg", L"1390FCB694872DE1"},
        {L"\\\\SERVER\\Share\\Tessaly\\Shared.CFG", L"1390FCB694872DE1"},
        {L"c:\\donn\u00e9es\\r\u00e9glages.cfg", L"F4685FDE2B47D562"},
        {L"C:\\DONN\u00c9ES\\R\u00e9glages.CFG", L"F4685FDE2B47D562"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.digits, sharedfile::PathHashDigits(c.path.data(), c.path.size()));
    const std::wstring slashes = L"c:/settings/shared.cfg";
    EXPECT_NE(L"FB3D620478925F4A", sharedfile::PathHashDigits(slashes.data(), slashes.size()));
}

}  // namespace
}  // namespace ky::test
