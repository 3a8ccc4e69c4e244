// The standard data object as producers fill it and consumers read it.
#include "exchange.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

STGMEDIUM Streamed(const char* bytes, IStream** stream) {
    STGMEDIUM m = {TYMED_ISTREAM};
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &m.pstm));
    m.pstm->Write(bytes, static_cast<ULONG>(std::strlen(bytes)), nullptr);  // left standing at its end
    if (stream) (*stream = m.pstm)->AddRef();
    return m;
}

TEST(StdDataObject, GetDataHandsOutTheStoredMediaThemselvesWithAReferenceToTheObject) {
    auto data = CreateInstance<IDataObject>(CLSID_KyStdDataObject);
    FORMATETC text = Format(CF_UNICODETEXT, TYMED_HGLOBAL), streamed = Format(CF_TEXT, TYMED_ISTREAM);
    IStream* stream = nullptr;
    STGMEDIUM in = GlobalText(L"hello"), inStream = Streamed("abc", &stream), out = {}, outStream = {};
    ASSERT_HR(S_OK, data->SetData(&text, &in, FALSE));
    ASSERT_HR(S_OK, data->SetData(&streamed, &inStream, FALSE));  // the object takes the stream's reference over
    const LONG refs = RefsOf(data.Get());
    ASSERT_HR(S_OK, data->GetData(&text, &out));
    ASSERT_HR(S_OK, data->GetData(&streamed, &outStream));
    EXPECT_EQ(std::make_pair(in.hGlobal, stream), std::make_pair(out.hGlobal, outStream.pstm));
    EXPECT_EQ(std::make_pair(refs + 2, 3l), std::make_pair(RefsOf(data.Get()), RefsOf(stream)));
    ::ReleaseStgMedium(&out);  // drops those references only: the memory stays valid
    ::ReleaseStgMedium(&outStream);
    EXPECT_EQ(std::make_pair(refs, 2l), std::make_pair(RefsOf(data.Get()), RefsOf(stream)));
    EXPECT_EQ(L"hello", TextOf(in.hGlobal));
    EXPECT_HR(E_INVALIDARG, data->GetData(nullptr, &out));
    EXPECT_HR(E_INVALIDARG, data->GetData(&text, nullptr));
    data.Reset();
    EXPECT_EQ(0u, stream->Release());
}

TEST(StdDataObject, SetDataRefusesFReleaseTrueYetOwnsWhatItStores) {
    Counted owner;
    auto data = CreateInstance<IDataObject>(CLSID_KyStdDataObject);
    FORMATETC text = Format(CF_UNICODETEXT, TYMED_HGLOBAL), ansi = Format(CF_TEXT, TYMED_HGLOBAL);
    STGMEDIUM m1 = GlobalText(L"1", &owner), m2 = GlobalText(L"2", &owner);
    EXPECT_HR(E_INVALIDARG, data->SetData(&text, &m1, TRUE));
    EXPECT_HR(E_INVALIDARG, data->SetData(&text, nullptr, FALSE));
    EXPECT_HR(E_INVALIDARG, data->SetData(nullptr, &m1, FALSE));
    EXPECT_HR(S_FALSE, data->QueryGetData(&text));  // nothing was stored
    owner.AddRef();  // one reference goes with each medium
    owner.AddRef();
    ASSERT_HR(S_OK, data->SetData(&text, &m1, FALSE));
    ASSERT_HR(S_OK, data->SetData(&ansi, &m2, FALSE));
    EXPECT_HR(S_OK, data->SetData(nullptr, nullptr, FALSE));  // empties it through the release objects
    EXPECT_EQ(1, owner.Refs());
    EXPECT_HR(S_FALSE, data->QueryGetData(&ansi));
    ::GlobalFree(m1.hGlobal);  // (a release object means the memory is its owner's)
    ::GlobalFree(m2.hGlobal);
}

TEST(StdDataObject, RequestsMatchByFormatAspectAndAnyCommonMediumTypeOldestFirst) {
    auto data = CreateInstance<IDataObject>(CLSID_KyStdDataObject);
    FORMATETC stored = Format(CF_UNICODETEXT, TYMED_HGLOBAL), either = Format(CF_UNICODETEXT, TYMED_HGLOBAL | TYMED_ISTREAM);
    STGMEDIUM first = GlobalText(L"first"), second = GlobalText(L"second"), out = {};
    ASSERT_HR(S_OK, data->SetData(&stored, &first, FALSE));
    ASSERT_HR(S_OK, data->SetData(&stored, &second, FALSE));
    DVTARGETDEVICE device = {sizeof(DVTARGETDEVICE)};
    either.ptd = &device;  // target device and index take no part
    either.lindex = 5;
    ASSERT_HR(S_OK, data->GetData(&either, &out));
    EXPECT_EQ(first.hGlobal, out.hGlobal);
    ::ReleaseStgMedium(&out);
    for (auto [request, expected] : {std::pair<FORMATETC, HRESULT>{either, S_OK}, {Format(CF_UNICODETEXT, TYMED_ISTREAM), S_FALSE},
         {Format(CF_UNICODETEXT, TYMED_HGLOBAL, DVASPECT_ICON), S_FALSE}, {Format(CF_TEXT, TYMED_HGLOBAL), S_FALSE}}) {
        EXPECT_HR(expected, data->QueryGetData(&request));
        EXPECT_HR(expected ? DV_E_FORMATETC : S_OK, data->GetData(&request, &out));
        if (expected == S_OK) ::ReleaseStgMedium(&out);
    }
    EXPECT_HR(E_INVALIDARG, data->QueryGetData(nullptr));
}

TEST(StdDataObject, TheFormatEnumeratorListsEntriesInOrderAndKeepsTheObject) {
    Counted owner;
    ComPtr<IEnumFORMATETC> e, none;
    {
        auto data = CreateInstance<IDataObject>(CLSID_KyStdDataObject);
        DVTARGETDEVICE device = {sizeof device};
        FORMATETC first = Format(CF_UNICODETEXT, TYMED_HGLOBAL), second = Format(CF_TEXT, TYMED_ISTREAM, DVASPECT_THUMBNAIL);
        second.ptd = &device;
        STGMEDIUM medium = GlobalText(L"x", &owner);
        owner.AddRef();
        ASSERT_HR(S_OK, data->SetData(&first, &medium, FALSE));
        medium.pUnkForRelease = nullptr;  // the second entry frees the memory
        ASSERT_HR(S_OK, data->SetData(&second, &medium, FALSE));
        device.tdSize = 0;
        ASSERT_HR(S_OK, data->EnumFormatEtc(DATADIR_GET, &e));
        EXPECT_HR(E_FAIL, data->EnumFormatEtc(DATADIR_SET, &none));
        EXPECT_HR(E_INVALIDARG, data->EnumFormatEtc(3, &none));
    }
    EXPECT_EQ(2, owner.Refs());  // the enumerator keeps the data object, and so its media
    FORMATETC got[3] = {};
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, e->Next(3, got, &fetched));
    ASSERT_EQ(2u, fetched);
    EXPECT_EQ((std::vector<DWORD>{CF_UNICODETEXT, CF_TEXT, DVASPECT_THUMBNAIL, TYMED_ISTREAM}),
              (std::vector<DWORD>{got[0].cfFormat, got[1].cfFormat, got[1].dwAspect, got[1].tymed}));
    ASSERT_TRUE(got[1].ptd && !got[0].ptd && got[1].ptd->tdSize == sizeof(DVTARGETDEVICE));  // a copy of its own
    ::CoTaskMemFree(got[1].ptd);
    e.Reset();
    EXPECT_EQ(1, owner.Refs());  // destroyed, the object releases its media
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
