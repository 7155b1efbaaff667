#include "framework/persistent/xmlsafety.h"

#include <string_view>

namespace tarn {
namespace {

// The position just past the first occurrence of terminator at or after from; npos when
// there is none.
std::size_t After(std::string_view text, std::size_t from, std::string_view terminator) {
  const std::size_t at = text.find(terminator, from);
  return at == std::string_view::npos ? at : at + terminator.size();
}

// Counts the attributes of the start tag whose "<" is at start ("=" signs outside quoted
// values) and gives the position after its ">"; npos when the tag does not end.
std::size_t ScanStartTag(std::string_view text, std::size_t start, std::size_t& attributes) {
  attributes = 0;
  for (std::size_t at = start + 1; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '>') return at + 1;
    if (c == '=') {
      ++attributes;
    } else if (c == '"' || c == '\'') {
      at = text.find(c, at + 1);
      if (at == std::string_view::npos) return at;
    }
  }
  return std::string_view::npos;
}

}  // namespace

bool AttributeCountsWithin(std::string_view document, std::size_t maxPerElement) {
  struct Skipped {
    std::string_view opening;
    std::string_view closing;
  };
  static constexpr Skipped kSkipped[] = {
      {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}, {"</", ">"}};
  std::size_t at = document.find('<');
  while (at != std::string_view::npos) {
    const std::string_view rest = document.substr(at);
    const Skipped* skipped = nullptr;
    for (const Skipped& construct : kSkipped) {
      if (rest.starts_with(construct.opening)) {
        skipped = &construct;
        break;
      }
    }
    std::size_t next;
    if (skipped != nullptr) {
      next = After(document, at + skipped->opening.size(), skipped->closing);
    } else {
      std::size_t attributes = 0;
      next = ScanStartTag(document, at, attributes);
      if (attributes > maxPerElement) return false;
    }
    if (next == std::string_view::npos) return true;
    at = document.find('<', next);
  }
  return true;
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
