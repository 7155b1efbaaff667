#include "tools/refserver/xml_util.h"

#include <charconv>
#include <climits>
#include <mutex>

namespace tarn::refserver {

namespace {

struct ParserContextFree {
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

struct XmlCharFree {
  void operator()(xmlChar* text) const { xmlFree(text); }
};

std::string Trimmed(const char* message) {
  std::string text = message != nullptr ? message : "unknown error";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace

XmlDocument ParseXml(std::string_view text) {
  // libxml2 sets up its global state once, before any thread parses.
  static std::once_flag initialised;
  std::call_once(initialised, [] { xmlInitParser(); });
  if (text.size() > static_cast<std::size_t>(INT_MAX)) {
    throw std::runtime_error("malformed XML: document too large");
  }
  std::unique_ptr<xmlParserCtxt, ParserContextFree> context(xmlNewParserCtxt());
  if (!context) throw std::runtime_error("out of memory while parsing XML");
  XmlDocument doc(xmlCtxtReadMemory(context.get(), text.data(), static_cast<int>(text.size()),
                                    nullptr, nullptr,
                                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) {
    const xmlError* error = xmlCtxtGetLastError(context.get());
    throw std::runtime_error("malformed XML" +
                             (error != nullptr ? " at line " + std::to_string(error->line) +
                                                     ": " + Trimmed(error->message)
                                               : std::string()));
  }
  if (doc->intSubset != nullptr || doc->extSubset != nullptr) {
    throw std::runtime_error("malformed XML: a document type declaration is not accepted");
  }
  if (xmlDocGetRootElement(doc.get()) == nullptr) {
    throw std::runtime_error("malformed XML: no root element");
  }
  return doc;
}

std::optional<std::string> Attribute(const xmlNode* node, const char* name) {
  std::unique_ptr<xmlChar, XmlCharFree> value(
      xmlGetProp(node, reinterpret_cast<const xmlChar*>(name)));
  if (!value) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(value.get()));
}

std::string ElementName(const xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);
}

std::optional<long long> ParseInteger(std::string_view text) {
  long long value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
  return value;
}

}  // namespace tarn::refserver
