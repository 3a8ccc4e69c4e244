// What the string-collection test programs share: creating the classes,
// arguments, reading a collection back, and persisted images.
#pragma once

#include <windows.h>
#include <wrl/client.h>

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

// A VARIANT argument that owns its value (VT_EMPTY by default).
class Arg : public com::Variant {
public:
    Arg() = default;
    explicit Arg(long value) { V_VT(this) = VT_I4; V_I4(this) = value; }
    explicit Arg(double value) { V_VT(this) = VT_R8; V_R8(this) = value; }
    explicit Arg(const wchar_t* text) { V_VT(this) = VT_BSTR; V_BSTR(this) = ::SysAllocString(text); }
    explicit Arg(IUnknown* object) { V_VT(this) = VT_UNKNOWN; V_UNKNOWN(this) = object; object->AddRef(); }
    // `type` by reference to the caller's `value`.
    Arg(VARTYPE type, void* value) { V_VT(this) = type | VT_BYREF; V_BYREF(this) = value; }
};

inline std::wstring Text(BSTR text) { return std::wstring(text ? text : L"", ::SysStringLen(text)); }
inline HRESULT AddText(IStrings* strings, const wchar_t* text) { return strings->Add(com::Bstr(text)); }
inline void AddAll(IStrings* strings, std::initializer_list<const wchar_t*> texts) {
    for (const wchar_t* text : texts) EXPECT_HR(S_OK, AddText(strings, text));
}

// The elements by position, as a client reads them, separated by spaces.
inline std::wstring Joined(IStrings* strings) {
    long count = -1;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    std::wstring joined;
    for (long i = 0; i < count; ++i) {
        com::Bstr item;
        EXPECT_HR(S_OK, strings->get_Item(Arg(i), item.Out()));
        joined += (i ? L" " : L"") + Text(item);
    }
    return joined;
}

inline ComPtr<IPersistStream> PersistOf(IUnknown* object) {
    ComPtr<IPersistStream> persist;
    EXPECT_HR(S_OK, object->QueryInterface(IID_PPV_ARGS(&persist)));
    return persist;
}
// The image that Save writes for an object, clearing the dirty flag or not.
inline Bytes Saved(IUnknown* object, BOOL clearDirty = FALSE) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    EXPECT_HR(S_OK, PersistOf(object)->Save(stream.Get(), clearDirty));
    HGLOBAL memory = nullptr;
    ::GetHGlobalFromStream(stream.Get(), &memory);
    ULARGE_INTEGER size{};
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &size);
    const BYTE* bytes = static_cast<const BYTE*>(::GlobalLock(memory));
    Bytes image(bytes, bytes + size.QuadPart);
    ::GlobalUnlock(memory);
    return image;
}
inline void SaveClean(IUnknown* object) { Saved(object, TRUE); }  // later changes then show in IsDirty
inline HRESULT LoadFrom(IUnknown* object, const Bytes& bytes) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    return PersistOf(object)->Load(stream.Get());
}
inline HRESULT IsDirty(IUnknown* object) { return PersistOf(object)->IsDirty(); }

// Pieces of the persisted forms, for building images by hand.
inline void PutUInt32(Bytes& bytes, ULONG value) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<BYTE>(value >> (8 * i)));
}
// A string record for `length` characters of `text` (embedded zeros kept) and its terminator.
inline void PutString(Bytes& bytes, const wchar_t* text, size_t length) {
    PutUInt32(bytes, static_cast<ULONG>(length * 2 + 2));
    const BYTE* p = reinterpret_cast<const BYTE*>(text);
    bytes.insert(bytes.end(), p, p + length * 2);
    bytes.insert(bytes.end(), {0, 0});
}
inline void PutString(Bytes& bytes, const wchar_t* text) { PutString(bytes, text, wcslen(text)); }

}  // namespace ky::test
