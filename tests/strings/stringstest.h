// What the string-collection test programs share: creating the classes,
// arguments, reading a collection back, and streams with exact contents.
#pragma once

#include <windows.h>
#include <objidl.h>
#include <oleauto.h>

#include <wrl/client.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "com/raii.h"
#include "kytest.h"
#include "messages.h"

namespace ky::test {

using Microsoft::WRL::ComPtr;
using Bytes = std::vector<BYTE>;

template <class I>
ComPtr<I> Create(const CLSID& clsid) {
    ComPtr<I> object;
    EXPECT_HR(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(I), &object));
    return object;
}

inline ComPtr<IStrings> NewStrings() { return Create<IStrings>(CLSID_KyStrings); }

// A VARIANT argument that owns its value.
class Arg : public com::Variant {
public:
    explicit Arg(long value) {
        V_VT(this) = VT_I4;
        V_I4(this) = value;
    }
    explicit Arg(const wchar_t* text) {
        V_VT(this) = VT_BSTR;
        V_BSTR(this) = ::SysAllocString(text);
    }
    // Any other type; the value is filled in by the caller.
    struct Typed {
        VARTYPE type;
    };
    explicit Arg(Typed typed) { V_VT(this) = typed.type; }
};

inline std::wstring Text(BSTR text) { return std::wstring(text ? text : L"", ::SysStringLen(text)); }

inline HRESULT AddText(IStrings* strings, const wchar_t* text) {
    com::Bstr value(text);
    return strings->Add(value);
}

inline void AddAll(IStrings* strings, std::initializer_list<const wchar_t*> texts) {
    for (const wchar_t* text : texts) ASSERT_HR(S_OK, AddText(strings, text));
}

// The elements by position, as a client reads them.
inline std::vector<std::wstring> Contents(IStrings* strings) {
    long count = -1;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    std::vector<std::wstring> items;
    for (long i = 0; i < count; ++i) {
        com::Bstr item;
        EXPECT_HR(S_OK, strings->get_Item(Arg(i), item.Out()));
        items.push_back(Text(item));
    }
    return items;
}

inline ComPtr<IStream> MemoryStream(const Bytes& bytes = {}) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    if (!bytes.empty()) {
        ULONG written = 0;
        EXPECT_HR(S_OK, stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
        LARGE_INTEGER zero{};
        stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    }
    return stream;
}

inline ULONGLONG Position(IStream* stream) {
    LARGE_INTEGER zero{};
    ULARGE_INTEGER position{};
    stream->Seek(zero, STREAM_SEEK_CUR, &position);
    return position.QuadPart;
}

// Everything written to a memory stream.
inline Bytes Written(IStream* stream) {
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    Bytes bytes(static_cast<size_t>(stat.cbSize.QuadPart));
    LARGE_INTEGER zero{};
    stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    ULONG read = 0;
    if (!bytes.empty()) stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read);
    return bytes;
}

// The object's IPersistStream; every persisted class of this folder has one.
inline ComPtr<IPersistStream> PersistOf(IUnknown* object) {
    ComPtr<IPersistStream> persist;
    EXPECT_HR(S_OK, object->QueryInterface(IID_PPV_ARGS(&persist)));
    return persist;
}

// The image that Save writes for an object (dirty flag kept).
inline Bytes Saved(IUnknown* object) {
    ComPtr<IStream> stream = MemoryStream();
    EXPECT_HR(S_OK, PersistOf(object)->Save(stream.Get(), FALSE));
    return Written(stream.Get());
}

// Saves with the dirty flag cleared, so that later changes show in IsDirty.
inline void SaveClean(IUnknown* object) { ASSERT_HR(S_OK, PersistOf(object)->Save(MemoryStream().Get(), TRUE)); }

inline HRESULT LoadFrom(IUnknown* object, const Bytes& bytes) {
    return PersistOf(object)->Load(MemoryStream(bytes).Get());
}

inline ULONGLONG SizeMax(IUnknown* object) {
    ULARGE_INTEGER size{};
    EXPECT_HR(S_OK, PersistOf(object)->GetSizeMax(&size));
    return size.QuadPart;
}

inline HRESULT IsDirty(IUnknown* object) { return PersistOf(object)->IsDirty(); }

// Pieces of the persisted forms, for building images by hand.
inline void PutUInt32(Bytes& bytes, ULONG value) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<BYTE>(value >> (8 * i)));
}
inline void PutRaw(Bytes& bytes, const void* data, size_t size) {
    const BYTE* p = static_cast<const BYTE*>(data);
    bytes.insert(bytes.end(), p, p + size);
}
// A string record for `text` of `length` characters (embedded zeros kept).
inline void PutString(Bytes& bytes, const wchar_t* text, size_t length) {
    PutUInt32(bytes, static_cast<ULONG>(length * 2 + 2));
    PutRaw(bytes, text, length * 2);
    bytes.insert(bytes.end(), {0, 0});  // the terminator
}
inline void PutString(Bytes& bytes, const wchar_t* text) { PutString(bytes, text, wcslen(text)); }
inline void PutGuid(Bytes& bytes, const GUID& guid) { PutRaw(bytes, &guid, sizeof(guid)); }

// A compound file in the temporary folder with one stream, removed with
// the object.
class Docfile {
public:
    Docfile() {
        wchar_t folder[MAX_PATH], path[MAX_PATH];
        ::GetTempPathW(MAX_PATH, folder);
        ::GetTempFileNameW(folder, L"kys", 0, path);
        m_path = path;
    }
    ~Docfile() { ::DeleteFileW(m_path.c_str()); }
    Docfile(const Docfile&) = delete;
    Docfile& operator=(const Docfile&) = delete;

    // Saves through IPersistStream into the file's stream, committed and closed.
    HRESULT Save(IUnknown* object) {
        ComPtr<IStorage> storage;
        HRESULT hr =
            ::StgCreateDocfile(m_path.c_str(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, &storage);
        ComPtr<IStream> stream;
        if (SUCCEEDED(hr))
            hr = storage->CreateStream(kStream, STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &stream);
        if (SUCCEEDED(hr)) hr = PersistOf(object)->Save(stream.Get(), TRUE);
        stream.Reset();
        if (SUCCEEDED(hr)) hr = storage->Commit(STGC_DEFAULT);
        return hr;
    }
    HRESULT Load(IUnknown* object) {
        ComPtr<IStorage> storage;
        HRESULT hr = ::StgOpenStorage(m_path.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage);
        ComPtr<IStream> stream;
        if (SUCCEEDED(hr)) hr = storage->OpenStream(kStream, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
        if (SUCCEEDED(hr)) hr = PersistOf(object)->Load(stream.Get());
        return hr;
    }

private:
    static constexpr const wchar_t* kStream = L"Contents";
    std::wstring m_path;
};

// A stream that takes `room` bytes and then fails every write, or, when
// `shortWrites` is set, accepts the calls but writes nothing more.
class FullStream : public IStream {
public:
    FullStream(ULONG room, bool shortWrites) : m_room(room), m_short(shortWrites) {}
    virtual ~FullStream() = default;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IStream) ||
            IsEqualIID(riid, IID_ISequentialStream)) {
            *ppv = static_cast<IStream*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
    STDMETHODIMP_(ULONG) Release() override { return --m_refs; }
    STDMETHODIMP Write(const void*, ULONG size, ULONG* written) override {
        ULONG taken = size <= m_room ? size : (m_short ? m_room : 0);
        if (taken < size && !m_short) return STG_E_MEDIUMFULL;
        m_room -= taken;
        if (written) *written = taken;
        return S_OK;
    }
    STDMETHODIMP Read(void*, ULONG, ULONG* read) override {
        if (read) *read = 0;
        return S_FALSE;
    }
    STDMETHODIMP Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    STDMETHODIMP SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    STDMETHODIMP Commit(DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Revert() override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Clone(IStream**) override { return E_NOTIMPL; }

private:
    ULONG m_room;
    bool m_short;
    ULONG m_refs = 1;
};

}  // namespace ky::test
