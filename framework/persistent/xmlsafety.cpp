#include "framework/persistent/xmlsafety.h"

#include <string_view>

namespace tarn {
namespace {

// True for a "<" that may open a start tag: one not followed by "/", "?" or "!".
bool MayOpenStartTag(std::string_view text, std::size_t at) {
  if (at + 1 >= text.size()) return true;
  const char next = text[at + 1];
  return next != '/' && next != '?' && next != '!';
}

}  // namespace

bool AttributeCountsWithin(std::string_view document, std::size_t maxPerElement) {
  // Whatever else the parser makes of the bytes, an attribute needs an "=" and no part of a
  // start tag holds a "<" (names cannot, and a value stops at one), so the attributes of a
  // tag opened at a "<" are at most the "=" signs before the next "<". Counting them
  // follows no quoting, comment or declaration rules, and so cannot be misled by them.
  std::size_t at = document.find('<');
  while (at != std::string_view::npos) {
    const std::size_t next = document.find('<', at + 1);
    if (MayOpenStartTag(document, at)) {
      const std::string_view segment = document.substr(at, next - at);
      std::size_t signs = 0;
      for (std::size_t sign = segment.find('='); sign != std::string_view::npos;
           sign = segment.find('=', sign + 1)) {
        if (++signs > maxPerElement) return false;
      }
    }
    at = next;
  }
  return true;
}

bool NamespaceDeclarationsWithin(std::string_view document, std::size_t maxDeclarations) {
  std::size_t found = 0;
  for (std::size_t at = document.find("xmlns"); at != std::string_view::npos;
       at = document.find("xmlns", at + 5)) {
    if (++found > maxDeclarations) return false;
  }
  return true;
}

bool HasMarkupDeclaration(std::string_view document) {
  for (std::size_t at = document.find("<!"); at != std::string_view::npos;
       at = document.find("<!", at + 2)) {
    const std::string_view rest = document.substr(at);
    if (!rest.starts_with("<!--") && !rest.starts_with("<![CDATA[")) return true;
  }
  return false;
}

bool IsUnsafeDtd(const xmlDtd* dtd) {
  if (dtd == nullptr) {
    return false;
  }
  return dtd->entities != nullptr || dtd->pentities != nullptr || dtd->ExternalID != nullptr ||
         dtd->SystemID != nullptr;
}

bool HasUnsafeDoctype(const xmlDoc* document) {
  if (document == nullptr) {
    return false;
  }
  return document->extSubset != nullptr || IsUnsafeDtd(document->intSubset);
}

}  // namespace tarn
