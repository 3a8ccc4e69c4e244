// The pieces that the persisted forms of string collections and search
// attribute groups are made of: 32-bit little-endian counts, string records
// and object records (a class identifier followed by the object's own data).
#pragma once

#include <windows.h>
#include <objidl.h>

namespace ky::records {

// Writes all `size` bytes: a failing write ends with the stream's result, a
// short one with STG_E_CANTSAVE.
HRESULT WriteBytes(IStream* stream, const void* data, ULONG size);
HRESULT WriteUInt32(IStream* stream, ULONG value);
// A failing read ends with the stream's result, a short one with E_FAIL.
HRESULT ReadUInt32(IStream* stream, ULONG* value);

// A string record: its byte length plus 2 (0 for a null string), then the
// characters and a U+0000 terminator.
HRESULT WriteString(IStream* stream, BSTR text);
// Reads a string record into *text (null for a null string). When the body
// cannot be read in full the stream is moved back 4 bytes from where the
// read stopped.
HRESULT ReadString(IStream* stream, BSTR* text);

// Writes the object's class identifier and its own data, without clearing
// its dirty flag.
HRESULT WriteObject(IStream* stream, IUnknown* object);
// Creates an object of the recorded class, loads it from the stream and
// answers `iid` on it.
HRESULT ReadObject(IStream* stream, REFIID iid, void** object);

}  // namespace ky::records
