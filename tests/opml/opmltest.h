// Helpers of the OPML test programs: documents made through COM, saved to
// and loaded from memory, and outline trees described as text to compare.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <string>

#include "com/raii.h"
#include "kytest.h"

namespace ky::test::opml {

using Microsoft::WRL::ComPtr;

// An object or a string that a property getter hands out.
template <class I, class T>
ComPtr<I> Get(T* object, HRESULT (STDMETHODCALLTYPE T::*get)(I**)) {
    ComPtr<I> result;
    EXPECT_HR(S_OK, (object->*get)(&result));
    return result;
}
template <class T>
std::wstring Str(T* object, HRESULT (STDMETHODCALLTYPE T::*get)(BSTR*)) {
    com::Bstr value;
    EXPECT_HR(S_OK, (object->*get)(value.Out()));
    return std::wstring(value.Get() ? value.Get() : L"", value.Length());
}
template <class T, class Getter>
std::wstring Str(const ComPtr<T>& object, Getter get) {
    return Str(object.Get(), get);
}

ComPtr<IOPMLDocument> NewDocument();
inline ComPtr<IOPMLHeader> HeaderOf(IOPMLDocument* d) { return Get(d, &IOPMLDocument::get_Header); }
inline ComPtr<IOPMLOutlines> BodyOf(IOPMLDocument* d) { return Get(d, &IOPMLDocument::get_Body); }
inline ComPtr<IOPMLOutlines> SubItemsOf(IOPMLOutline* o) { return Get(o, &IOPMLOutline::get_SubItems); }
inline ComPtr<IOPMLAttributes> AttributesOf(IOPMLOutline* o) { return Get(o, &IOPMLOutline::get_Attributes); }

// A VARIANT argument: a position, a name or text, an object.
struct Arg : com::Variant {
    Arg() = default;
    explicit Arg(int position) {
        V_VT(this) = VT_I4;
        V_I4(this) = position;
    }
    explicit Arg(const std::wstring& text) {
        V_VT(this) = VT_BSTR;
        V_BSTR(this) = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    }
    explicit Arg(IUnknown* object) : Arg(VT_UNKNOWN, object) {}
    explicit Arg(IDispatch* object) : Arg(VT_DISPATCH, object) {}
    Arg(VARTYPE type, IUnknown* object) {
        V_VT(this) = type;
        V_UNKNOWN(this) = object;
        if (object) object->AddRef();
    }
    operator VARIANT*() { return this; }
};

// The bytes Save writes into a memory stream, where it must answer `expected`.
std::string Saved(IOPMLDocument* document, HRESULT expected = S_OK);
// Load from bytes in a memory stream that stands at `position`.
HRESULT LoadBytes(IOPMLDocument* document, const std::string& bytes, LONGLONG position = 0);
inline HRESULT LoadText(IOPMLDocument* document, const std::wstring& text) { return document->Load(Arg(text)); }

ComPtr<IOPMLOutline> AddOutline(IOPMLOutlines* outlines, const wchar_t* text = nullptr);
ComPtr<IOPMLOutline> OutlineAt(IOPMLOutlines* outlines, LONG position);
LONG CountOf(IOPMLOutlines* outlines);
void AddAttribute(IOPMLOutline* outline, const std::wstring& name, const std::wstring& value);

// The attributes of an outline in collection order as name="value" text;
// the outline tree below a collection, one outline per line, indented by
// depth; the expansion state as "1,2,3".
std::wstring AttributesText(IOPMLOutline* outline);
std::wstring TreeText(IOPMLOutlines* outlines, int depth = 0);
std::wstring ExpansionText(IOPMLDocument* document);

// A generated document: a header with every field, and `outlines` outlines
// spread over `depth` levels, with many attributes, text in several scripts
// (CJK, emoji, right-to-left) and every character that XML escapes.
void BuildRichDocument(IOPMLDocument* document, int outlines, int depth);

}  // namespace ky::test::opml
