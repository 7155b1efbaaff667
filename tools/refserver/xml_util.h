// libxml2 helpers shared by the catalogue and the upload readers: a document owner,
// a safe parse (no network, no entity expansion, no DTD), attributes as text and
// strict decimal integers.
#pragma once

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarn::refserver {

struct XmlDocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDocument = std::unique_ptr<xmlDoc, XmlDocFree>;

// Parses a document from memory. Refuses, with a one-line reason in the message of a
// std::runtime_error, text that is not well-formed XML and documents that declare a
// DTD (entity declarations would expand into attribute values otherwise).
XmlDocument ParseXml(std::string_view text);

// The attribute's text, or nothing when the element does not have it.
std::optional<std::string> Attribute(const xmlNode* node, const char* name);

// The element's name as text.
std::string ElementName(const xmlNode* node);

// A whole decimal integer (optional leading '-'), or nothing.
std::optional<long long> ParseInteger(std::string_view text);

}  // namespace tarn::refserver
