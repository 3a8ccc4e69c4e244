// The standard data object as producers fill it and consumers read it: the
// stored media themselves are handed out, the object owns what it stores,
// and requests match by format, aspect and medium type.
#include <wrl/client.h>

#include <cstring>
#include <string>
#include <vector>

#include "exchange.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

ComPtr<IDataObject> Create() { return CreateInstance<IDataObject>(CLSID_KyStdDataObject); }

ComPtr<IStream> StreamWith(const char* bytes) {
    ComPtr<IStream> s;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &s));
    EXPECT_HR(S_OK, s->Write(bytes, static_cast<ULONG>(std::strlen(bytes)), nullptr));
    return s;
}

std::string ContentsOf(IStream* s) {
    LARGE_INTEGER zero = {};
    s->Seek(zero, STREAM_SEEK_SET, nullptr);
    std::string out;
    char buffer[64];
    ULONG read = 0;
    while (SUCCEEDED(s->Read(buffer, sizeof buffer, &read)) && read) out.append(buffer, read);
    return out;
}

ULONGLONG PositionOf(IStream* s) {
    LARGE_INTEGER zero = {};
    ULARGE_INTEGER position = {};
    s->Seek(zero, STREAM_SEEK_CUR, &position);
    return position.QuadPart;
}

TEST(StdDataObject, EveryRequestGetsANewObject) {
    ComPtr<IDataObject> a = Create(), b = Create();
    EXPECT_NE(a.Get(), b.Get());
}

TEST(StdDataObject, GetDataHandsOutTheStoredHGlobal) {
    ComPtr<IDataObject> data = Create();
    HGLOBAL h = GlobalText(L"hello");
    FORMATETC fe = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM in = GlobalMedium(h);
    ASSERT_HR(S_OK, data->SetData(&fe, &in, FALSE));
    const LONG refs = RefsOf(data.Get());

    STGMEDIUM out = {};
    ASSERT_HR(S_OK, data->GetData(&fe, &out));
    EXPECT_EQ(static_cast<DWORD>(TYMED_HGLOBAL), out.tymed);
    EXPECT_EQ(h, out.hGlobal);
    ComPtr<IUnknown> identity, release;
    data.As(&identity);
    ASSERT_NE(nullptr, out.pUnkForRelease);
    out.pUnkForRelease->QueryInterface(IID_PPV_ARGS(&release));
    EXPECT_EQ(identity.Get(), release.Get());
    release.Reset();
    identity.Reset();
    EXPECT_EQ(refs + 1, RefsOf(data.Get()));

    // Releasing the medium drops our reference only: the memory stays the object's.
    ::ReleaseStgMedium(&out);
    EXPECT_EQ(refs, RefsOf(data.Get()));
    EXPECT_EQ(L"hello", TextOf(h));
    ASSERT_HR(S_OK, data->GetData(&fe, &out));
    EXPECT_EQ(h, out.hGlobal);
    ::ReleaseStgMedium(&out);

    EXPECT_HR(E_INVALIDARG, data->GetData(nullptr, &out));
    EXPECT_HR(E_INVALIDARG, data->GetData(&fe, nullptr));
}

TEST(StdDataObject, SetDataRefusesToBeGivenTheMedium) {
    ComPtr<IDataObject> data = Create();
    HGLOBAL h = GlobalText(L"mine");
    FORMATETC fe = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM in = GlobalMedium(h);
    EXPECT_HR(E_INVALIDARG, data->SetData(&fe, &in, TRUE));
    EXPECT_HR(S_FALSE, data->QueryGetData(&fe));
    EXPECT_HR(E_INVALIDARG, data->SetData(&fe, nullptr, FALSE));
    EXPECT_HR(E_INVALIDARG, data->SetData(nullptr, &in, FALSE));
    EXPECT_HR(S_FALSE, data->QueryGetData(&fe));
    ::GlobalFree(h);  // still ours
}

TEST(StdDataObject, TheObjectOwnsWhatItStores) {
    Counted first, second;
    FORMATETC text = Format(CF_UNICODETEXT, TYMED_HGLOBAL), other = Format(CF_TEXT, TYMED_HGLOBAL);
    HGLOBAL h1 = GlobalText(L"1"), h2 = GlobalText(L"2");
    {
        ComPtr<IDataObject> data = Create();
        STGMEDIUM m1 = GlobalMedium(h1, &first), m2 = GlobalMedium(h2, &second);
        ASSERT_HR(S_OK, data->SetData(&text, &m1, FALSE));
        ASSERT_HR(S_OK, data->SetData(&other, &m2, FALSE));
        // Emptying releases every medium through the release object it came with.
        EXPECT_HR(S_OK, data->SetData(nullptr, nullptr, FALSE));
        EXPECT_EQ(0, first.Refs());
        EXPECT_EQ(0, second.Refs());
        EXPECT_HR(S_FALSE, data->QueryGetData(&text));
        EXPECT_HR(S_FALSE, data->QueryGetData(&other));

        first.SetRefs(1);
        ASSERT_HR(S_OK, data->SetData(&text, &m1, FALSE));
        EXPECT_EQ(1, first.Refs());
    }
    EXPECT_EQ(0, first.Refs());  // and so does the object's destruction
    ::GlobalFree(h1);         // (a release object means the memory is its owner's)
    ::GlobalFree(h2);
}

TEST(StdDataObject, RequestsMatchByFormatAspectAndAnyCommonMediumType) {
    ComPtr<IDataObject> data = Create();
    HGLOBAL first = GlobalText(L"first"), second = GlobalText(L"second");
    FORMATETC stored = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM m1 = GlobalMedium(first), m2 = GlobalMedium(second);
    ASSERT_HR(S_OK, data->SetData(&stored, &m1, FALSE));
    ASSERT_HR(S_OK, data->SetData(&stored, &m2, FALSE));

    FORMATETC either = Format(CF_UNICODETEXT, TYMED_HGLOBAL | TYMED_ISTREAM);
    EXPECT_HR(S_OK, data->QueryGetData(&either));
    DVTARGETDEVICE device = {sizeof(DVTARGETDEVICE)};
    FORMATETC elsewhere = either;
    elsewhere.ptd = &device;  // target device and index take no part
    elsewhere.lindex = 5;
    EXPECT_HR(S_OK, data->QueryGetData(&elsewhere));
    FORMATETC streamOnly = Format(CF_UNICODETEXT, TYMED_ISTREAM);
    FORMATETC icon = Format(CF_UNICODETEXT, TYMED_HGLOBAL, DVASPECT_ICON);
    FORMATETC otherFormat = Format(CF_TEXT, TYMED_HGLOBAL);
    for (FORMATETC* miss : {&streamOnly, &icon, &otherFormat}) {
        EXPECT_HR(S_FALSE, data->QueryGetData(miss));
        STGMEDIUM out = {};
        EXPECT_HR(DV_E_FORMATETC, data->GetData(miss, &out));
    }
    EXPECT_HR(E_INVALIDARG, data->QueryGetData(nullptr));

    // The older of two entries for one format keeps answering.
    STGMEDIUM out = {};
    ASSERT_HR(S_OK, data->GetData(&elsewhere, &out));
    EXPECT_EQ(first, out.hGlobal);
    ::ReleaseStgMedium(&out);
}

TEST(StdDataObject, StreamsAreHandedOutAndCopiedWhole) {
    ComPtr<IDataObject> data = Create();
    ComPtr<IStream> stored = StreamWith("abcdef");
    LARGE_INTEGER three = {};
    three.QuadPart = 3;
    stored->Seek(three, STREAM_SEEK_SET, nullptr);
    FORMATETC fe = Format(CF_TEXT, TYMED_ISTREAM);
    STGMEDIUM in = {};
    in.tymed = TYMED_ISTREAM;
    in.pstm = stored.Get();
    stored->AddRef();  // the object takes this reference over
    ASSERT_HR(S_OK, data->SetData(&fe, &in, FALSE));
    const LONG refs = RefsOf(stored.Get());

    STGMEDIUM out = {};
    ASSERT_HR(S_OK, data->GetData(&fe, &out));
    EXPECT_EQ(stored.Get(), out.pstm);
    EXPECT_EQ(refs + 1, RefsOf(stored.Get()));
    ::ReleaseStgMedium(&out);
    EXPECT_EQ(refs, RefsOf(stored.Get()));

    ComPtr<IStream> target;
    ASSERT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &target));
    STGMEDIUM here = {};
    here.tymed = TYMED_ISTREAM;
    here.pstm = target.Get();
    EXPECT_HR(S_OK, data->GetDataHere(&fe, &here));
    EXPECT_EQ("abcdef", ContentsOf(target.Get()));
    EXPECT_EQ(3u, PositionOf(stored.Get()));  // the stored stream stays where it was

    FORMATETC global = Format(CF_TEXT, TYMED_HGLOBAL);
    EXPECT_HR(DV_E_FORMATETC, data->GetDataHere(&global, &here));
    FORMATETC missing = Format(CF_UNICODETEXT, TYMED_ISTREAM);
    EXPECT_HR(DV_E_FORMATETC, data->GetDataHere(&missing, &here));
    EXPECT_HR(E_INVALIDARG, data->GetDataHere(&fe, nullptr));
    EXPECT_HR(E_INVALIDARG, data->GetDataHere(nullptr, &here));

    data.Reset();
    EXPECT_EQ(1, RefsOf(stored.Get()));
}

TEST(StdDataObject, StoragesAreCopiedIntoTheCallersStorage) {
    auto makeStorage = [] {
        ComPtr<ILockBytes> bytes;
        ComPtr<IStorage> storage;
        EXPECT_HR(S_OK, ::CreateILockBytesOnHGlobal(nullptr, TRUE, &bytes));
        EXPECT_HR(S_OK, ::StgCreateDocfileOnILockBytes(bytes.Get(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE,
                                                       0, &storage));
        return storage;
    };
    ComPtr<IStorage> source = makeStorage(), target = makeStorage();
    ComPtr<IStream> part;
    ASSERT_HR(S_OK, source->CreateStream(L"part", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &part));
    ASSERT_HR(S_OK, part->Write("xyz", 3, nullptr));
    part.Reset();

    ComPtr<IDataObject> data = Create();
    FORMATETC fe = Format(CF_TEXT, TYMED_ISTORAGE);
    STGMEDIUM in = {};
    in.tymed = TYMED_ISTORAGE;
    in.pstg = source.Get();
    source->AddRef();
    ASSERT_HR(S_OK, data->SetData(&fe, &in, FALSE));

    STGMEDIUM here = {};
    here.tymed = TYMED_ISTORAGE;
    here.pstg = target.Get();
    ASSERT_HR(S_OK, data->GetDataHere(&fe, &here));
    ASSERT_HR(S_OK, target->OpenStream(L"part", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &part));
    EXPECT_EQ("xyz", ContentsOf(part.Get()));

    // A medium of the other kind is not filled.
    ComPtr<IStream> wrongKind;
    ASSERT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &wrongKind));
    STGMEDIUM stream = {};
    stream.tymed = TYMED_ISTREAM;
    stream.pstm = wrongKind.Get();
    FORMATETC both = Format(CF_TEXT, TYMED_ISTORAGE | TYMED_ISTREAM);
    EXPECT_TRUE(FAILED(data->GetDataHere(&both, &stream)));
}

TEST(StdDataObject, TheFormatEnumeratorListsEntriesInOrder) {
    Counted release;
    ComPtr<IEnumFORMATETC> e;
    {
        ComPtr<IDataObject> data = Create();
        struct {
            DVTARGETDEVICE device;
            BYTE extra[4];
        } device = {{sizeof device}, {1, 2, 3, 4}};
        FORMATETC first = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
        FORMATETC second = Format(CF_TEXT, TYMED_HGLOBAL | TYMED_ISTREAM, DVASPECT_THUMBNAIL);
        second.ptd = &device.device;
        second.lindex = 2;
        HGLOBAL h = GlobalText(L"x");
        STGMEDIUM m1 = GlobalMedium(h, &release), m2 = GlobalMedium(h, &release);
        release.SetRefs(2);
        ASSERT_HR(S_OK, data->SetData(&first, &m1, FALSE));
        ASSERT_HR(S_OK, data->SetData(&second, &m2, FALSE));
        device.extra[0] = 9;  // the object keeps a copy of its own
        ASSERT_HR(S_OK, data->EnumFormatEtc(DATADIR_GET, &e));

        ComPtr<IEnumFORMATETC> none;
        EXPECT_HR(E_FAIL, data->EnumFormatEtc(DATADIR_SET, &none));
        EXPECT_HR(E_INVALIDARG, data->EnumFormatEtc(3, &none));
        EXPECT_HR(E_INVALIDARG, data->EnumFormatEtc(DATADIR_GET, nullptr));
        ::GlobalFree(h);
    }
    // The enumerator keeps the data object, and so its media, alive.
    ASSERT_NE(nullptr, e.Get());
    EXPECT_EQ(2, release.Refs());
    FORMATETC got[3] = {};
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, e->Next(3, got, &fetched));
    ASSERT_EQ(2u, fetched);
    EXPECT_EQ(CF_UNICODETEXT, got[0].cfFormat);
    EXPECT_EQ(nullptr, got[0].ptd);
    EXPECT_EQ(CF_TEXT, got[1].cfFormat);
    EXPECT_EQ(static_cast<DWORD>(DVASPECT_THUMBNAIL), got[1].dwAspect);
    EXPECT_EQ(2, got[1].lindex);
    EXPECT_EQ(static_cast<DWORD>(TYMED_HGLOBAL | TYMED_ISTREAM), got[1].tymed);
    ASSERT_NE(nullptr, got[1].ptd);
    EXPECT_EQ(1, reinterpret_cast<const BYTE*>(got[1].ptd)[sizeof(DVTARGETDEVICE)]);
    ::CoTaskMemFree(got[1].ptd);
    e.Reset();
    EXPECT_EQ(0, release.Refs());
}

TEST(StdDataObject, CanonicalFormatsAndAdviseAreNotOffered) {
    ComPtr<IDataObject> data = Create();
    FORMATETC in = Format(CF_TEXT, TYMED_HGLOBAL), out;
    std::memset(&out, 0xCC, sizeof out);
    FORMATETC untouched = out;
    EXPECT_HR(DATA_S_SAMEFORMATETC, data->GetCanonicalFormatEtc(&in, &out));
    EXPECT_EQ(0, std::memcmp(&out, &untouched, sizeof out));
    EXPECT_HR(E_INVALIDARG, data->GetCanonicalFormatEtc(nullptr, &out));
    EXPECT_HR(E_INVALIDARG, data->GetCanonicalFormatEtc(&in, nullptr));
    DWORD connection = 0;
    EXPECT_HR(E_NOTIMPL, data->DAdvise(&in, 0, nullptr, &connection));
    EXPECT_HR(E_NOTIMPL, data->DUnadvise(1));
    IEnumSTATDATA* advises = nullptr;
    EXPECT_HR(E_NOTIMPL, data->EnumDAdvise(&advises));
}

// An outer object that aggregates the data object and counts its own references.
class Outer : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown)) {
            *ppv = this;
            AddRef();
            return S_OK;
        }
        return inner ? inner->QueryInterface(riid, ppv) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    LONG refs = 1;
    IUnknown* inner = nullptr;
};

TEST(StdDataObject, AsAnAggregateItDelegatesToItsOuterObject) {
    Outer outer;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyStdDataObject, &outer, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                       reinterpret_cast<void**>(&outer.inner)));
    IDataObject* data = nullptr;
    ASSERT_HR(S_OK, outer.QueryInterface(IID_IDataObject, reinterpret_cast<void**>(&data)));
    EXPECT_EQ(2, outer.refs);  // the inner's interface counts on the outer

    HGLOBAL h = GlobalText(L"aggregated");
    FORMATETC fe = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM in = GlobalMedium(h), out = {};
    ASSERT_HR(S_OK, data->SetData(&fe, &in, FALSE));
    ASSERT_HR(S_OK, data->GetData(&fe, &out));
    EXPECT_EQ(3, outer.refs);
    ::ReleaseStgMedium(&out);
    ComPtr<IEnumFORMATETC> e;
    ASSERT_HR(S_OK, data->EnumFormatEtc(DATADIR_GET, &e));
    EXPECT_EQ(3, outer.refs);  // the enumerator keeps the whole object
    e.Reset();
    data->Release();
    EXPECT_EQ(1, outer.refs);

    // Aggregation must ask for IUnknown.
    IUnknown* refused = nullptr;
    EXPECT_HR(CLASS_E_NOAGGREGATION, ::CoCreateInstance(CLSID_KyStdDataObject, &outer, CLSCTX_INPROC_SERVER,
                                                         IID_IDataObject, reinterpret_cast<void**>(&refused)));
    outer.inner->Release();
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
