#include "strings/records.h"

#include <oleauto.h>
#include <ocidl.h>

#include <wrl/client.h>

#include <algorithm>
#include <vector>

#include "com/guard.h"
#include "com/raii.h"

using Microsoft::WRL::ComPtr;

namespace ky::records {

namespace {

// A record's body is read in pieces of this size, so that a corrupt length
// costs memory only for the bytes that the stream really holds.
constexpr ULONG kReadPiece = 64 * 1024;

// Object records may hold objects that hold object records. Well-formed data
// nests three deep; a crafted stream could nest until the stack runs out.
constexpr int kMaxNesting = 32;
thread_local int t_nesting = 0;

class NestingGuard {
public:
    NestingGuard() { ++t_nesting; }
    ~NestingGuard() { --t_nesting; }
    NestingGuard(const NestingGuard&) = delete;
    NestingGuard& operator=(const NestingGuard&) = delete;
    bool TooDeep() const { return t_nesting > kMaxNesting; }
};

HRESULT StepBack(IStream* stream) {
    LARGE_INTEGER back;
    back.QuadPart = -4;
    return stream->Seek(back, STREAM_SEEK_CUR, nullptr);
}

// Reads `size` bytes of a record body. On a short read `data` holds what came.
HRESULT ReadBody(IStream* stream, ULONG size, std::vector<char>& data) {
    data.clear();
    ULONG remaining = size;
    while (remaining > 0) {
        ULONG piece = std::min(remaining, kReadPiece);
        size_t offset = data.size();
        data.resize(offset + piece);
        ULONG read = 0;
        HRESULT hr = stream->Read(data.data() + offset, piece, &read);
        data.resize(offset + std::min(read, piece));
        if (FAILED(hr)) return hr;
        if (read < piece) return E_FAIL;
        remaining -= piece;
    }
    return S_OK;
}

template <class Persist>
HRESULT SaveThrough(IStream* stream, Persist* persist) {
    CLSID clsid;
    HRESULT hr = persist->GetClassID(&clsid);
    if (FAILED(hr)) return hr;
    hr = ::WriteClassStm(stream, clsid);
    if (FAILED(hr)) return hr;
    return persist->Save(stream, FALSE);
}

}  // namespace

HRESULT WriteBytes(IStream* stream, const void* data, ULONG size) {
    ULONG written = 0;
    HRESULT hr = stream->Write(data, size, &written);
    if (FAILED(hr)) return hr;
    return written == size ? S_OK : STG_E_CANTSAVE;
}

HRESULT WriteUInt32(IStream* stream, ULONG value) {
    const BYTE bytes[4] = {BYTE(value), BYTE(value >> 8), BYTE(value >> 16), BYTE(value >> 24)};
    return WriteBytes(stream, bytes, sizeof(bytes));
}

HRESULT ReadUInt32(IStream* stream, ULONG* value) {
    BYTE bytes[4] = {};
    ULONG read = 0;
    HRESULT hr = stream->Read(bytes, sizeof(bytes), &read);
    if (FAILED(hr)) return hr;
    if (read < sizeof(bytes)) return E_FAIL;
    *value = ULONG(bytes[0]) | ULONG(bytes[1]) << 8 | ULONG(bytes[2]) << 16 | ULONG(bytes[3]) << 24;
    return S_OK;
}

HRESULT WriteString(IStream* stream, BSTR text) {
    if (!text) return WriteUInt32(stream, 0);
    // A BSTR always carries two zero bytes after its data: they are the terminator.
    ULONG size = ::SysStringByteLen(text) + 2;
    HRESULT hr = WriteUInt32(stream, size);
    if (FAILED(hr)) return hr;
    return WriteBytes(stream, text, size);
}

HRESULT ReadString(IStream* stream, BSTR* text) {
    *text = nullptr;
    ULONG size = 0;
    HRESULT hr = ReadUInt32(stream, &size);
    if (FAILED(hr)) return hr;
    if (size == 0) return S_OK;
    // A body shorter than its terminator cannot have been written by us.
    if (size < 2) {
        StepBack(stream);
        return E_FAIL;
    }
    return com::Guard([&]() -> HRESULT {
        std::vector<char> data;
        HRESULT read = ReadBody(stream, size, data);
        if (FAILED(read)) {
            StepBack(stream);
            return read;
        }
        // The stored terminator is not trusted: the copy gets its own.
        *text = ::SysAllocStringByteLen(data.data(), size - 2);
        return *text ? S_OK : E_OUTOFMEMORY;
    });
}

HRESULT WriteObject(IStream* stream, IUnknown* object) {
    ComPtr<IPersistStreamInit> init;
    if (SUCCEEDED(object->QueryInterface(IID_PPV_ARGS(&init)))) return SaveThrough(stream, init.Get());
    ComPtr<IPersistStream> persist;
    HRESULT hr = object->QueryInterface(IID_PPV_ARGS(&persist));
    if (FAILED(hr)) return hr;
    return SaveThrough(stream, persist.Get());
}

HRESULT ReadObject(IStream* stream, REFIID iid, void** object) {
    *object = nullptr;
    NestingGuard nesting;
    if (nesting.TooDeep()) return E_FAIL;
    CLSID clsid;
    HRESULT hr = ::ReadClassStm(stream, &clsid);
    if (hr == STG_E_READFAULT) return E_FAIL;  // the stream ended inside the class identifier
    if (FAILED(hr)) return hr;
    ComPtr<IUnknown> created;
    hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_PPV_ARGS(&created));
    if (FAILED(hr)) return hr;
    ComPtr<IPersistStreamInit> init;
    ComPtr<IPersistStream> persist;
    if (SUCCEEDED(created.As(&init))) {
        hr = init->Load(stream);
    } else {
        hr = created.As(&persist);
        if (SUCCEEDED(hr)) hr = persist->Load(stream);
    }
    if (FAILED(hr)) return hr;
    return created->QueryInterface(iid, object);
}

}  // namespace ky::records
