// Safe parsing of the store's XML inputs (data dictionaries, row documents).
//
// Documents are parsed without network access, without entity substitution
// and without loading external DTDs. A document whose DOCTYPE declares
// entities or names an external DTD is refused as a whole: expanding a few
// nested entity references in one attribute can take minutes even though the
// parse itself is fast.
#pragma once

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace tarn {

// Parser options for every XML parse of the store. Parser diagnostics are
// kept off standard error; callers log their own messages.
inline constexpr int kSafeXmlParseOptions =
    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

// A text handed out by libxml2, released with xmlFree.
struct XmlCharDeleter {
  void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlCharDeleter>;

// True when the DTD declares any general or parameter entity or names an
// external subset (public or system identifier). A null DTD is safe.
bool IsUnsafeDtd(const xmlDtd* dtd);

// True when the parsed document must be refused: its internal subset is
// unsafe (see IsUnsafeDtd) or it carries an external subset.
bool HasUnsafeDoctype(const xmlDoc* document);

// True when the document holds a "<!" that opens neither a comment nor a CDATA section,
// wherever it stands: a document type declaration, or text that looks like one. Documents
// that must not declare anything are refused on it before parsing, so nothing a
// declaration could hide (in a quoted entity value, say) ever reaches the parser.
bool HasMarkupDeclaration(std::string_view document);

}  // namespace tarn
