// The clipboard gateway against the platform's real clipboard, on the
// process's main STA, where the application has initialised OLE.
#include "exchange.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

// The text on the clipboard read through the raw calls; "<none>" when there
// is none, which the gateway reports as E_FAIL with a null handle.
std::wstring RawText(IKyOLE* ole) {
    ULONG_PTR handle = 1;
    EXPECT_HR(S_OK, ole->OpenClipboard(0));
    HRESULT hr = ole->GetClipboardData(CF_UNICODETEXT, &handle);
    EXPECT_HR(handle ? S_OK : E_FAIL, hr);
    std::wstring text = TextOf(reinterpret_cast<HGLOBAL>(handle));
    EXPECT_HR(S_OK, ole->CloseClipboard());
    return text;
}

TEST(ClipboardGateway, RawCallsReportFailureAsEFail) {
    auto ole = CreateInstance<IKyOLE>(CLSID_KyOLE);
    EXPECT_HR(E_FAIL, ole->CloseClipboard());  // not open
    EXPECT_HR(E_POINTER, ole->GetClipboardData(CF_UNICODETEXT, nullptr));
    HWND gone = ::CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    ::DestroyWindow(gone);
    EXPECT_HR(E_FAIL, ole->OpenClipboard(reinterpret_cast<ULONG_PTR>(gone)));
}

TEST(ClipboardGateway, ADataObjectOnTheClipboardIsReadByEveryRouteAndFlushed) {
    auto ole = CreateInstance<IKyOLE>(CLSID_KyOLE);
    auto data = CreateInstance<IDataObject>(CLSID_KyStdDataObject);
    FORMATETC fe = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM medium = GlobalText(L"hello clipboard");
    ASSERT_HR(S_OK, data->SetData(&fe, &medium, FALSE));
    const LONG refs = RefsOf(data.Get());
    ASSERT_HR(S_OK, ole->SetClipboard(data.Get()));
    EXPECT_HR(S_OK, ole->IsCurrentClipboard(data.Get()));
    // Another thread reads it through the gateway, which answers on its own thread.
    IStream* marshaled = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IKyOLE, ole.Get(), &marshaled));
    StaThread().Run([&] {
        ComPtr<IKyOLE> remote;
        ComPtr<IDataObject> clipboard;
        ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&remote)));
        ASSERT_HR(S_OK, remote->GetClipboard(&clipboard));
        ASSERT_HR(S_OK, clipboard->GetData(&fe, &medium));
        EXPECT_EQ(L"hello clipboard", TextOf(medium.hGlobal));
        ::ReleaseStgMedium(&medium);
    });
    EXPECT_EQ(L"hello clipboard", RawText(ole.Get()));
    EXPECT_HR(S_OK, ole->FlushClipboard());  // renders the data and lets go of the object; the text stays
    EXPECT_HR(S_FALSE, ole->IsCurrentClipboard(data.Get()));
    EXPECT_EQ(refs, RefsOf(data.Get()));
    EXPECT_EQ(L"hello clipboard", RawText(ole.Get()));
    EXPECT_HR(S_OK, ole->SetClipboard(nullptr));  // empties the clipboard
    EXPECT_EQ(L"<none>", RawText(ole.Get()));
}

// The OLE clipboard needs OLE itself, not only COM, on the gateway's thread.
class OleEnvironment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_TRUE(SUCCEEDED(::OleInitialize(nullptr))); }
    void TearDown() override { ::OleUninitialize(); }
};
const auto* const g_ole = ::testing::AddGlobalTestEnvironment(new OleEnvironment);

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
