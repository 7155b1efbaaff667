#include "platform/text/xml_markup_bounds.h"

#include <algorithm>

namespace tarn {
namespace {

// The end of the span of the start tag whose "<" is at start (see CountXmlMarkup).
std::size_t SpanEnd(std::string_view document, std::size_t start) {
  char quote = 0;
  for (std::size_t at = start + 1; at < document.size(); ++at) {
    const char c = document[at];
    if (c == '<') return at;
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return at;
    }
  }
  return document.size();
}

std::size_t Occurrences(std::string_view text, std::string_view word) {
  std::size_t found = 0;
  for (std::size_t at = text.find(word); at != std::string_view::npos;
       at = text.find(word, at + word.size())) {
    ++found;
  }
  return found;
}

}  // namespace

XmlMarkupCounts CountXmlMarkup(std::string_view document) {
  XmlMarkupCounts counts;
  std::size_t at = document.find('<');
  while (at != std::string_view::npos) {
    const char next = at + 1 < document.size() ? document[at + 1] : '\0';
    if (next == '/' || next == '?' || next == '!') {
      at = document.find('<', at + 1);
      continue;
    }
    const std::size_t end = SpanEnd(document, at);
    const std::string_view span = document.substr(at, end - at);
    counts.mostAttributes = std::max(
        counts.mostAttributes, static_cast<std::size_t>(std::count(span.begin(), span.end(), '=')));
    counts.namespaceDeclarations += Occurrences(span, "xmlns");
    at = document.find('<', end);
  }
  return counts;
}

}  // namespace tarn
