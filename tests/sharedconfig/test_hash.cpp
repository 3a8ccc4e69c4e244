// The hash behind the lock's name: every process that shares a file must
// compute the same sixteen digits. The expected digits come from a separate
// Python implementation of 64-bit FNV-1 over path.lower().encode("utf-16-le").
#include "kytest.h"
#include "sharedconfig/sharedfile.h"

namespace ky::test {
namespace {

TEST(PathHash, MatchesIndependentlyComputedValuesWhateverTheCase) {
    // Spellings that differ only in case share their digits; others do not.
    const struct { std::wstring path; const wchar_t* digits; } cases[] = {
        {L"c:\\settings\\shared.cfg", L"FB3D620478925F4A"}, {L"C:\\Settings\\SHARED.cfg", L"FB3D620478925F4A"},
        {L"a", L"08326707B4EB37DA"},  // leading zeros kept
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
