// The clipboard gateway against the platform's real clipboard: a data
// object put on the OLE clipboard is read back by another thread and
// through the raw clipboard, then flushed; the raw calls report their
// failures as E_FAIL. The gateway lives on the process's main STA.
#include <wrl/client.h>

#include <cstring>
#include <string>

#include "exchange.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

ComPtr<IKyOLE> Gateway() { return CreateInstance<IKyOLE>(CLSID_KyOLE); }

FORMATETC TextFormat() { return Format(CF_UNICODETEXT, TYMED_HGLOBAL); }

// A data object holding one text.
ComPtr<IDataObject> DataWithText(const wchar_t* text) {
    ComPtr<IDataObject> data = CreateInstance<IDataObject>(CLSID_KyStdDataObject);
    FORMATETC fe = TextFormat();
    STGMEDIUM medium = GlobalMedium(GlobalText(text));
    EXPECT_HR(S_OK, data->SetData(&fe, &medium, FALSE));
    return data;
}

// The text on the clipboard, read through the gateway's raw calls.
std::wstring RawText(IKyOLE* ole, HRESULT* hr) {
    std::wstring text = L"<none>";
    EXPECT_HR(S_OK, ole->OpenClipboard(0));
    ULONG_PTR handle = 1;
    *hr = ole->GetClipboardData(CF_UNICODETEXT, &handle);
    if (handle) text = TextOf(reinterpret_cast<HGLOBAL>(handle));
    EXPECT_HR(S_OK, ole->CloseClipboard());
    return text;
}

TEST(ClipboardGateway, IsOneObjectForTheProcessAndRefusesAggregation) {
    ComPtr<IKyOLE> a = Gateway(), b = Gateway();
    EXPECT_EQ(a.Get(), b.Get());
    IUnknown* inner = reinterpret_cast<IUnknown*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, ::CoCreateInstance(CLSID_KyOLE, a.Get(), CLSCTX_INPROC_SERVER, IID_IUnknown,
                                                         reinterpret_cast<void**>(&inner)));
    EXPECT_EQ(nullptr, inner);
}

TEST(ClipboardGateway, RawCallsReportFailureAsEFail) {
    ComPtr<IKyOLE> ole = Gateway();
    EXPECT_HR(E_FAIL, ole->CloseClipboard());  // not open
    ASSERT_HR(S_OK, ole->OpenClipboard(0));
    ASSERT_TRUE(::EmptyClipboard());
    ULONG_PTR handle = 1;
    EXPECT_HR(E_FAIL, ole->GetClipboardData(CF_UNICODETEXT, &handle));
    EXPECT_EQ(0u, handle);
    EXPECT_HR(E_POINTER, ole->GetClipboardData(CF_UNICODETEXT, nullptr));
    EXPECT_HR(S_OK, ole->CloseClipboard());
    EXPECT_HR(E_FAIL, ole->CloseClipboard());

    // While another window holds the clipboard open, this thread cannot open it.
    HANDLE opened = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    struct Events {
        HANDLE opened, done;
    } events{opened, done};
    HANDLE holder = ::CreateThread(
        nullptr, 0,
        [](void* p) -> DWORD {
            auto* e = static_cast<Events*>(p);
            HWND window = ::CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr,
                                            nullptr);
            BOOL ok = window && ::OpenClipboard(window);
            ::SetEvent(e->opened);
            ::WaitForSingleObject(e->done, INFINITE);
            if (ok) ::CloseClipboard();
            if (window) ::DestroyWindow(window);
            return ok ? 0 : 1;
        },
        &events, 0, nullptr);
    ::WaitForSingleObject(opened, INFINITE);
    HRESULT hr = ole->OpenClipboard(0);
    EXPECT_HR(E_FAIL, hr);
    if (SUCCEEDED(hr)) ole->CloseClipboard();
    ::SetEvent(done);
    ::WaitForSingleObject(holder, INFINITE);
    DWORD holderResult = 1;
    ::GetExitCodeThread(holder, &holderResult);
    EXPECT_EQ(0u, holderResult);
    for (HANDLE h : {opened, done, holder}) ::CloseHandle(h);
}

TEST(ClipboardGateway, ADataObjectOnTheClipboardIsReadByEveryRoute) {
    ComPtr<IKyOLE> ole = Gateway();
    ComPtr<IDataObject> data = DataWithText(L"hello clipboard");
    const LONG refs = RefsOf(data.Get());
    ASSERT_HR(S_OK, ole->SetClipboard(data.Get()));
    EXPECT_HR(S_OK, ole->IsCurrentClipboard(data.Get()));
    ComPtr<IDataObject> other = DataWithText(L"other");
    EXPECT_HR(S_FALSE, ole->IsCurrentClipboard(other.Get()));
    EXPECT_HR(S_FALSE, ole->IsCurrentClipboard(nullptr));

    // Another thread reads it through the gateway, which answers on its own thread.
    IStream* marshaled = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IKyOLE, ole.Get(), &marshaled));
    std::wstring seen = L"<nothing>";
    HRESULT got = E_PENDING;
    StaThread reader;
    reader.Run([&] {
        ComPtr<IKyOLE> remote;
        if (FAILED(::CoGetInterfaceAndReleaseStream(marshaled, IID_IKyOLE, &remote))) return;
        ComPtr<IDataObject> clipboard;
        got = remote->GetClipboard(&clipboard);
        if (!clipboard) return;
        FORMATETC fe = TextFormat();
        STGMEDIUM medium = {};
        if (SUCCEEDED(clipboard->GetData(&fe, &medium))) {
            seen = TextOf(medium.hGlobal);
            ::ReleaseStgMedium(&medium);
        }
    });
    EXPECT_HR(S_OK, got);
    EXPECT_EQ(L"hello clipboard", seen);

    HRESULT hr;
    EXPECT_EQ(L"hello clipboard", RawText(ole.Get(), &hr));
    EXPECT_HR(S_OK, hr);

    // Flushing renders the data and lets go of the object; the text stays.
    EXPECT_HR(S_OK, ole->FlushClipboard());
    EXPECT_HR(S_FALSE, ole->IsCurrentClipboard(data.Get()));
    EXPECT_EQ(refs, RefsOf(data.Get()));
    EXPECT_EQ(L"hello clipboard", RawText(ole.Get(), &hr));

    // A null object empties the clipboard.
    EXPECT_HR(S_OK, ole->SetClipboard(nullptr));
    EXPECT_EQ(L"<none>", RawText(ole.Get(), &hr));
    EXPECT_HR(E_FAIL, hr);
    EXPECT_HR(E_POINTER, ole->GetClipboard(nullptr));
}

TEST(ClipboardGateway, ALaterObjectReplacesTheCurrentOne) {
    ComPtr<IKyOLE> ole = Gateway();
    ComPtr<IDataObject> first = DataWithText(L"first"), second = DataWithText(L"second");
    const LONG refs = RefsOf(first.Get());
    ASSERT_HR(S_OK, ole->SetClipboard(first.Get()));
    ASSERT_HR(S_OK, ole->SetClipboard(second.Get()));
    EXPECT_HR(S_FALSE, ole->IsCurrentClipboard(first.Get()));
    EXPECT_HR(S_OK, ole->IsCurrentClipboard(second.Get()));
    EXPECT_EQ(refs, RefsOf(first.Get()));  // the clipboard let go of the first

    ComPtr<IDataObject> clipboard;
    ASSERT_HR(S_OK, ole->GetClipboard(&clipboard));
    FORMATETC fe = TextFormat();
    STGMEDIUM medium = {};
    ASSERT_HR(S_OK, clipboard->GetData(&fe, &medium));
    EXPECT_EQ(L"second", TextOf(medium.hGlobal));
    ::ReleaseStgMedium(&medium);
    clipboard.Reset();

    EXPECT_HR(S_OK, ole->SetClipboard(nullptr));  // the clipboard must not outlive the test's objects
    EXPECT_HR(S_FALSE, ole->IsCurrentClipboard(second.Get()));
}

// The OLE clipboard needs OLE itself, not only COM, on the gateway's thread;
// that is the application's part.
class OleEnvironment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_TRUE(SUCCEEDED(::OleInitialize(nullptr))); }
    void TearDown() override { ::OleUninitialize(); }
};
const auto* const g_ole = ::testing::AddGlobalTestEnvironment(new OleEnvironment);

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
