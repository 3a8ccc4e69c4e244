// Finds a document type declaration at the start of XML input before the
// input is parsed. The reader rejects such documents: a DTD could declare
// entities that expand without limit or that name files outside the document.
#pragma once

#include <windows.h>
#include <oaidl.h>

namespace OPML {

// True when the input (a BSTR of XML text, a byte array or a stream, also
// by reference) starts, after its XML declaration, processing instructions
// and comments, with <!DOCTYPE. A stream is read from its current position
// and put back there.
bool CarriesDocumentType(const VARIANT& input);

}  // namespace OPML
