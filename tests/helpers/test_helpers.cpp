// The helper object as clients use it: kernel-object names, the library's
// resources as streams, the ordering of property pages kept in the registry,
// the process's temporary folder and folders made with their parents.
#include <wrl/client.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "com/raii.h"
#include "helpers/schemas.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

VARIANT Text(BSTR text) {
    VARIANT v = Number(0, VT_BSTR);
    V_BSTR(&v) = text;
    return v;
}

struct Helpers : ::testing::Test {
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&names)));
        ASSERT_HR(S_OK, names.As(&resources));
        ASSERT_HR(S_OK, names.As(&order));  // one identity with the aggregated orderer
        ASSERT_HR(S_OK, names.As(&files));
    }
    void TearDown() override {
        for (const auto& page : pages) ::RegDeleteKeyW(HKEY_CLASSES_ROOT, (L"CLSID\\" + GuidText(page)).c_str());
    }
    // A new property page with the given settings (null: none).
    CLSID Page(const wchar_t* group = nullptr, const wchar_t* position = nullptr) {
        CLSID page;
        ::CoCreateGuid(&page);
        pages.push_back(page);
        EXPECT_HR(S_OK, group ? order->SetPropPageData(page, KYPPD_GROUP, com::Bstr(group)) : S_OK);
        EXPECT_HR(S_OK, position ? order->SetPropPageData(page, KYPPD_ORDER, com::Bstr(position)) : S_OK);
        return page;
    }
    HRESULT Load(VARIANT type, VARIANT name, IStream** stream) { return resources->LoadResource(&type, &name, stream); }
    ComPtr<IKyStdStrings> names;
    ComPtr<IKyResourceData> resources;
    ComPtr<IKyPropPageOrder> order;
    ComPtr<IKyFileSystem> files;
    std::vector<CLSID> pages;
};

TEST_F(Helpers, KernelObjectNamesCarryTheSessionPrefixAndTheUserAsTheyAre) {
    wchar_t user[257];
    DWORD size = 257;
    ASSERT_TRUE(::GetUserNameW(user, &size));
    // global, per user, suffix, the name or the failure (every system this runs on has terminal-services namespaces)
    const std::tuple<long, long, const wchar_t*, std::wstring> cases[] = {
        {0, 0, L"AppMutex", L"Local\\AppMutex"}, {1, 0, L"AppMutex", L"Global\\AppMutex"},
        {1, 1, L"AppMutex", L"Global\\" + std::wstring(user) + L"AppMutex"},
        {0, -5, L"a\\b c", L"Local\\" + std::wstring(user) + L"a\\b c"},  // nothing escaped
        {1, 1, L"", L"0x80070057"}, {1, 1, nullptr, L"0x80070057"}};
    for (const auto& [global, perUser, suffix, expected] : cases) {
        BSTR name = reinterpret_cast<BSTR>(0x10);
        HRESULT hr = names->CreateKernelObjectName(global, perUser, com::Bstr(suffix), &name);
        EXPECT_EQ(expected, SUCCEEDED(hr) ? name : name == reinterpret_cast<BSTR>(0x10) ? Widen(Hex(hr)) : L"?");
        if (SUCCEEDED(hr)) ::SysFreeString(name);
    }
}

TEST_F(Helpers, SchemasAndOtherResourcesComeBackAsWritableCopies) {
    com::Bstr type(schemas::kSchemaType), typelib(L"TYPELIB"), unknown(L"1.XSD");
    for (const wchar_t* name : {schemas::kDirectoryDataV1, schemas::kDirectoryDataV2, schemas::kEntryTemplates,
                                schemas::kQueryOptions}) {
        ComPtr<IStream> stream;
        ASSERT_HR(S_OK, Load(Text(type), Text(com::Bstr(name)), &stream)) << Narrow(name);
        std::ifstream file((std::wstring(KY_SOURCE_DIR L"/resources/schemas/") + name).c_str(), std::ios::binary);
        std::ostringstream expected;
        expected << file.rdbuf();
        std::string bytes(expected.str().size() + 1, '\0');
        ULONG read = 0;
        ASSERT_HR(S_OK, stream->Read(&bytes[0], static_cast<ULONG>(bytes.size()), &read));  // from position zero
        EXPECT_EQ(expected.str(), bytes.substr(0, read)) << Narrow(name);
        EXPECT_HR(S_OK, stream->Write("<!-- -->", 8, nullptr));
    }
    // Identifiers are names or the low 16 bits of integers (the type library is resource 1 of "TYPELIB").
    ComPtr<IStream> stream;
    for (VARIANT id : {Number(1, VT_I2), Number(1, VT_UI4), Number(0x7FFF0001), Text(unknown)})
        EXPECT_HR(V_VT(&id) == VT_BSTR ? E_FAIL : S_OK, Load(Text(typelib), id, &stream));
    IStream* untouched = reinterpret_cast<IStream*>(0x10);
    for (VARIANT bad : {Number(1, VT_UI1), Number(0, VT_R8), Number(0, VT_EMPTY), Text(nullptr)})
        EXPECT_HR(E_INVALIDARG, Load(Text(typelib), bad, &untouched)) << V_VT(&bad);
    EXPECT_EQ(reinterpret_cast<IStream*>(0x10), untouched);
}

TEST_F(Helpers, PropertyPagesGoByGroupThenByOrderAsTextIgnoringCase) {
    const CLSID none = Page(), g3 = Page(L"3"), g1 = Page(L"1", L"zzz"), g2a = Page(L"2", L"a"),
                g2A = Page(L"2", L"A"), ten = Page(L"2", L"10"), nine = Page(L"2", L"9"), g2 = Page(L"2");
    // one, two, result (pages without a group, or with one out of range, come last)
    const std::tuple<CLSID, CLSID, int> comparisons[] = {
        {none, Page(), 0}, {g3, none, -1}, {none, g3, 1},   {g1, g2a, -1}, {g2a, g1, 1},
        {ten, nine, -1},   {nine, ten, 1}, {g2a, g2A, 0},   {nine, g2, -1}};
    for (const auto& [one, two, expected] : comparisons) {
        int result = 99;
        EXPECT_HR(S_OK, order->IsPrecedingByOrder(one, two, &result));
        EXPECT_EQ(expected, result);
    }
    std::vector<CLSID> sorted = {none, g3, g2A, ten, g2a, g1};
    ASSERT_HR(S_OK, order->Sort(static_cast<UINT>(sorted.size()), sorted.data()));
    EXPECT_TRUE(sorted == std::vector<CLSID>({g1, ten, g2A, g2a, g3, none}));  // equal ones keep their order
    // Settings are text values beside the class registration; only groups 1 to 3 are taken.
    std::wstring stored;
    EXPECT_TRUE(ReadRegString(HKEY_CLASSES_ROOT, L"CLSID\\" + GuidText(ten), L"KyPropPageOrder", &stored));
    EXPECT_EQ(L"10", stored);
    for (const wchar_t* bad : {L"4", L"0", L"2a", L""})
        EXPECT_HR(E_INVALIDARG, order->SetPropPageData(ten, KYPPD_GROUP, com::Bstr(bad))) << Narrow(bad);
    com::Bstr group;
    EXPECT_HR(S_OK, order->GetPropPageData(ten, KYPPD_GROUP, group.Out()));
    EXPECT_STREQ(L"2", group.Get());
}

TEST_F(Helpers, TheTemporaryFolderIsThisProcesssAndHoldsNewUniqueFilesAndFolders) {
    com::Bstr folder, first, second;
    ASSERT_HR(S_OK, files->GetTemporaryFolder(folder.Out()));
    const std::wstring prefix = TempPath() + L"KyUtils-";
    EXPECT_EQ(prefix, std::wstring(folder.Get()).substr(0, prefix.size()));
    ASSERT_HR(S_OK, files->CreateTemporaryFileName(com::Bstr(L"xml"), first.Out()));
    ASSERT_HR(S_OK, files->CreateTemporaryFileName(com::Bstr(L"xml"), second.Out()));
    EXPECT_NE(std::wstring(first.Get()), second.Get());
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(first.Get()));
    // Folders are made with their parents; the shell's answer comes through (a null path is the empty one).
    const std::wstring nested = std::wstring(folder.Get()) + L"a\\b";
    const HRESULT badPath = HRESULT_FROM_WIN32(ERROR_BAD_PATHNAME);
    const std::pair<const wchar_t*, HRESULT> paths[] = {
        {nested.c_str(), S_OK}, {nested.c_str(), S_FALSE}, {L"a\\b", badPath}, {L"", badPath}, {nullptr, badPath}};
    for (const auto& [path, expected] : paths)
        EXPECT_HR(expected, files->CreateDirectoryPath(path)) << (path ? Narrow(path) : "null");
    EXPECT_HR(S_OK, files->RemoveTemporaryFolder());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(folder.Get()));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
