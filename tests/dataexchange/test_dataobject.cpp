// The standard data object as producers fill it and consumers read it: the
// stored media themselves are handed out, the object owns what it stores,
// and requests match by format, aspect and any common medium type.
#include "exchange.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

ComPtr<IDataObject> Create() { return CreateInstance<IDataObject>(CLSID_KyStdDataObject); }

STGMEDIUM Medium(IStream* s) {
    STGMEDIUM m = {};
    m.tymed = TYMED_ISTREAM;
    m.pstm = s;
    return m;
}

STGMEDIUM Medium(IStorage* s) {
    STGMEDIUM m = {};
    m.tymed = TYMED_ISTORAGE;
    m.pstg = s;
    return m;
}

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

TEST(StdDataObject, GetDataHandsOutTheStoredMediaThemselves) {
    ComPtr<IDataObject> data = Create();
    EXPECT_NE(data.Get(), Create().Get());  // a new object for every request
    FORMATETC text = Format(CF_UNICODETEXT, TYMED_HGLOBAL), streamed = Format(CF_TEXT, TYMED_ISTREAM);
    ComPtr<IStream> stream = StreamWith("abc");
    STGMEDIUM in = GlobalText(L"hello"), inStream = Medium(stream.Get());
    stream->AddRef();  // the object takes this reference over
    ASSERT_HR(S_OK, data->SetData(&text, &in, FALSE));
    ASSERT_HR(S_OK, data->SetData(&streamed, &inStream, FALSE));
    const LONG refs = RefsOf(data.Get()), streamRefs = RefsOf(stream.Get());

    STGMEDIUM out = {}, outStream = {};
    ASSERT_HR(S_OK, data->GetData(&text, &out));
    ASSERT_HR(S_OK, data->GetData(&streamed, &outStream));
    EXPECT_EQ(static_cast<DWORD>(TYMED_HGLOBAL), out.tymed);
    EXPECT_EQ(in.hGlobal, out.hGlobal);
    EXPECT_EQ(stream.Get(), outStream.pstm);
    EXPECT_EQ(refs + 2, RefsOf(data.Get()));
    EXPECT_EQ(streamRefs + 1, RefsOf(stream.Get()));
    // Releasing the media drops those references only: the memory stays valid.
    ::ReleaseStgMedium(&out);
    ::ReleaseStgMedium(&outStream);
    EXPECT_EQ(refs, RefsOf(data.Get()));
    EXPECT_EQ(streamRefs, RefsOf(stream.Get()));
    EXPECT_EQ(L"hello", TextOf(in.hGlobal));
    EXPECT_HR(E_INVALIDARG, data->GetData(nullptr, &out));
    EXPECT_HR(E_INVALIDARG, data->GetData(&text, nullptr));
    data.Reset();
    EXPECT_EQ(1, RefsOf(stream.Get()));
}

TEST(StdDataObject, SetDataRefusesFReleaseTrueYetOwnsWhatItStores) {
    Counted owner;
    ComPtr<IDataObject> data = Create();
    FORMATETC text = Format(CF_UNICODETEXT, TYMED_HGLOBAL), ansi = Format(CF_TEXT, TYMED_HGLOBAL);
    STGMEDIUM mine = GlobalText(L"mine");
    EXPECT_HR(E_INVALIDARG, data->SetData(&text, &mine, TRUE));
    EXPECT_HR(E_INVALIDARG, data->SetData(&text, nullptr, FALSE));
    EXPECT_HR(E_INVALIDARG, data->SetData(nullptr, &mine, FALSE));
    EXPECT_HR(S_FALSE, data->QueryGetData(&text));  // nothing was stored
    ::GlobalFree(mine.hGlobal);                      // and the memory is still ours

    // Emptying releases the stored media through the release objects they came with.
    STGMEDIUM m1 = GlobalText(L"1", &owner), m2 = GlobalText(L"2", &owner);
    owner.AddRef();  // one reference goes with each medium
    owner.AddRef();
    ASSERT_HR(S_OK, data->SetData(&text, &m1, FALSE));
    ASSERT_HR(S_OK, data->SetData(&ansi, &m2, FALSE));
    EXPECT_HR(S_OK, data->SetData(nullptr, nullptr, FALSE));
    EXPECT_EQ(1, owner.Refs());
    EXPECT_HR(S_FALSE, data->QueryGetData(&text));
    EXPECT_HR(S_FALSE, data->QueryGetData(&ansi));
    ::GlobalFree(m1.hGlobal);  // (a release object means the memory is its owner's)
    ::GlobalFree(m2.hGlobal);
}

TEST(StdDataObject, RequestsMatchByFormatAspectAndAnyCommonMediumTypeOldestFirst) {
    ComPtr<IDataObject> data = Create();
    FORMATETC stored = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM first = GlobalText(L"first"), second = GlobalText(L"second");
    ASSERT_HR(S_OK, data->SetData(&stored, &first, FALSE));
    ASSERT_HR(S_OK, data->SetData(&stored, &second, FALSE));

    DVTARGETDEVICE device = {sizeof(DVTARGETDEVICE)};
    FORMATETC either = Format(CF_UNICODETEXT, TYMED_HGLOBAL | TYMED_ISTREAM);
    either.ptd = &device;  // target device and index take no part
    either.lindex = 5;
    EXPECT_HR(S_OK, data->QueryGetData(&either));
    STGMEDIUM out = {};
    ASSERT_HR(S_OK, data->GetData(&either, &out));
    EXPECT_EQ(first.hGlobal, out.hGlobal);
    ::ReleaseStgMedium(&out);

    FORMATETC misses[] = {Format(CF_UNICODETEXT, TYMED_ISTREAM), Format(CF_UNICODETEXT, TYMED_HGLOBAL, DVASPECT_ICON),
                          Format(CF_TEXT, TYMED_HGLOBAL)};
    for (FORMATETC& miss : misses) {
        EXPECT_HR(S_FALSE, data->QueryGetData(&miss));
        EXPECT_HR(DV_E_FORMATETC, data->GetData(&miss, &out));
    }
    EXPECT_HR(E_INVALIDARG, data->QueryGetData(nullptr));
}

TEST(StdDataObject, GetDataHereCopiesWholeStreamsAndStoragesIntoTheCallers) {
    const DWORD mode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    auto newStorage = [&] {
        ComPtr<ILockBytes> bytes;
        ComPtr<IStorage> storage;
        EXPECT_HR(S_OK, ::CreateILockBytesOnHGlobal(nullptr, TRUE, &bytes));
        EXPECT_HR(S_OK, ::StgCreateDocfileOnILockBytes(bytes.Get(), mode, 0, &storage));
        return storage;
    };
    ComPtr<IStream> stream = StreamWith("abcdef"), part;  // left standing at its end
    ComPtr<IStorage> storage = newStorage(), target = newStorage();
    ASSERT_HR(S_OK, storage->CreateStream(L"part", mode, 0, 0, &part));
    ASSERT_HR(S_OK, part->Write("xyz", 3, nullptr));
    part.Reset();

    ComPtr<IDataObject> data = Create();
    FORMATETC streamed = Format(CF_TEXT, TYMED_ISTREAM), stored = Format(CF_TEXT, TYMED_ISTORAGE);
    FORMATETC text = Format(CF_UNICODETEXT, TYMED_HGLOBAL);
    STGMEDIUM m1 = Medium(stream.Get()), m2 = Medium(storage.Get()), m3 = GlobalText(L"text");
    stream->AddRef();
    storage->AddRef();
    ASSERT_HR(S_OK, data->SetData(&streamed, &m1, FALSE));
    ASSERT_HR(S_OK, data->SetData(&stored, &m2, FALSE));
    ASSERT_HR(S_OK, data->SetData(&text, &m3, FALSE));

    ComPtr<IStream> copy = StreamWith("");
    STGMEDIUM here = Medium(copy.Get());
    EXPECT_HR(S_OK, data->GetDataHere(&streamed, &here));
    EXPECT_EQ("abcdef", ContentsOf(copy.Get()));
    here = Medium(target.Get());
    ASSERT_HR(S_OK, data->GetDataHere(&stored, &here));
    ASSERT_HR(S_OK, target->OpenStream(L"part", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &part));
    EXPECT_EQ("xyz", ContentsOf(part.Get()));

    FORMATETC missing = Format(CF_OEMTEXT, TYMED_ISTREAM);
    EXPECT_HR(DV_E_FORMATETC, data->GetDataHere(&text, &here));  // only streams and storages
    EXPECT_HR(DV_E_FORMATETC, data->GetDataHere(&missing, &here));
    EXPECT_HR(E_INVALIDARG, data->GetDataHere(&streamed, nullptr));
}

TEST(StdDataObject, TheFormatEnumeratorListsEntriesInOrderAndKeepsTheObject) {
    Counted owner;
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
        STGMEDIUM medium = GlobalText(L"x", &owner);
        owner.AddRef();
        ASSERT_HR(S_OK, data->SetData(&first, &medium, FALSE));
        medium.pUnkForRelease = nullptr;  // the second entry frees the memory
        ASSERT_HR(S_OK, data->SetData(&second, &medium, FALSE));
        device.extra[0] = 9;  // the object keeps a copy of its own
        ASSERT_HR(S_OK, data->EnumFormatEtc(DATADIR_GET, &e));

        ComPtr<IEnumFORMATETC> none;
        EXPECT_HR(E_FAIL, data->EnumFormatEtc(DATADIR_SET, &none));
        EXPECT_HR(E_INVALIDARG, data->EnumFormatEtc(3, &none));
        EXPECT_HR(E_INVALIDARG, data->EnumFormatEtc(DATADIR_GET, nullptr));
    }
    EXPECT_EQ(2, owner.Refs());  // the enumerator keeps the data object, and so its media
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
    EXPECT_EQ(1, owner.Refs());  // destroyed, the object releases its media
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_APARTMENTTHREADED)
