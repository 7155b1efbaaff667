#include "framework/persistent/xmlsafety.h"

#include <string_view>

namespace tarn {

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
