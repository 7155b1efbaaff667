// Bounds on what libxml2 will do with a document, found by one linear pass over its bytes
// before libxml2 sees it. libxml2 checks the attributes of one element against each other
// pairwise and looks every prefix up through all namespace declarations in scope, so a
// megabyte with a hundred thousand attributes on one element, or thirty thousand namespace
// declarations, costs seconds to minutes to parse.
#pragma once

#include <cstddef>
#include <string_view>

namespace tarn {

struct XmlMarkupCounts {
  // At least the most attributes libxml2 can read on one start tag.
  std::size_t mostAttributes = 0;
  // At least the namespace declarations libxml2 can read on all start tags together.
  std::size_t namespaceDeclarations = 0;
};

// Every "<" not followed by "/", "?" or "!" may open a start tag. Its span runs to the first
// ">" outside quotes (a quote opens at any '"' or "'" outside quotes and closes at the next
// of the same kind) or to the next "<", whichever comes first: libxml2 reads the tag's
// attributes in that span and no further (a value stops at "<", and a quote outside a value
// ends the tag with an error, after which this scan can only read further, not less far).
// In the span every "=" counts as an attribute and every "xmlns" as a declaration.
XmlMarkupCounts CountXmlMarkup(std::string_view document);

}  // namespace tarn
