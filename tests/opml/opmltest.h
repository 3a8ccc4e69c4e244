// Helpers of the OPML test programs: documents made through COM, saved to
// and loaded from memory, and outline trees described as text to compare.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <string>

#include "kytest.h"

namespace ky::test::opml {

using Microsoft::WRL::ComPtr;

// "Element was not found." (E_KY_ELEMENTNOTFOUND).
constexpr HRESULT kElementNotFound = static_cast<HRESULT>(0x80041021);

// A new OPMLDocument, created as a client would (from an MTA thread).
ComPtr<IOPMLDocument> NewDocument();
ComPtr<IOPMLHeader> HeaderOf(IOPMLDocument* document);
ComPtr<IOPMLOutlines> BodyOf(IOPMLDocument* document);

// Save into a memory stream; the bytes written.
HRESULT SaveTo(IOPMLDocument* document, std::string* bytes);
std::string Saved(IOPMLDocument* document);
// Load from XML text in a BSTR, or from bytes in a memory stream.
HRESULT LoadText(IOPMLDocument* document, const std::wstring& text);
HRESULT LoadBytes(IOPMLDocument* document, const std::string& bytes);
// Load from bytes in a VT_ARRAY | VT_UI1.
HRESULT LoadArray(IOPMLDocument* document, const std::string& bytes);
// UTF-16 bytes with a byte order mark.
std::string Utf16Bytes(const std::wstring& text);

// VARIANT keys for Item and Remove. The caller clears a name key.
VARIANT Position(LONG position);
VARIANT Name(const wchar_t* name);

ComPtr<IOPMLOutline> AddOutline(IOPMLOutlines* outlines, const wchar_t* text = nullptr);
ComPtr<IOPMLOutline> OutlineAt(IOPMLOutlines* outlines, LONG position);
LONG CountOf(IOPMLOutlines* outlines);
ComPtr<IOPMLOutlines> SubItemsOf(IOPMLOutline* outline);
ComPtr<IOPMLAttributes> AttributesOf(IOPMLOutline* outline);
// Appends an attribute through the collection (AddNew, Name, Value).
void AddAttribute(IOPMLOutline* outline, const std::wstring& name, const std::wstring& value);

// name="value" pairs of an outline in collection order, and the outline
// tree below a collection, one outline per line, indented by depth.
std::wstring AttributesText(IOPMLOutline* outline);
std::wstring TreeText(IOPMLOutlines* outlines, int depth = 0);

// A string of a BSTR out-parameter call, for one-line reads.
template <class Get>
std::wstring Text(Get get) {
    BSTR value = nullptr;
    HRESULT hr = get(&value);
    EXPECT_HR(S_OK, hr);
    std::wstring text = value ? std::wstring(value, ::SysStringLen(value)) : std::wstring();
    ::SysFreeString(value);
    return text;
}

// A generated document: a header with every field, and `outlines` outlines
// spread over `depth` levels, with many attributes, text in several scripts
// (CJK, emoji, right-to-left) and every character that XML escapes.
void BuildRichDocument(IOPMLDocument* document, int outlines, int depth);

}  // namespace ky::test::opml
