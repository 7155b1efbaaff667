#include "framework/persistent/xmlsafety.h"

namespace tarn {

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
