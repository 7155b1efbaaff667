#include "tools/refserver/terminal.h"

#include <cstdint>

namespace tarn::refserver {

namespace {

void AppendEscaped(std::string& out, unsigned char byte) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += "\\x";
  out += kHex[byte >> 4];
  out += kHex[byte & 0xF];
}

// The length of the well-formed UTF-8 sequence at the start of text (lead byte 0x80 or
// more), or 0; code points U+0080 to U+009F (the C1 controls) count as not well formed.
std::size_t PrintableSequence(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  std::size_t length = 0;
  std::uint32_t cp = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1Fu;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0Fu;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07u;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (next & 0x3Fu);
  }
  const bool overlong = (length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000);
  const bool bad = overlong || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF || cp <= 0x9F;
  return bad ? 0 : length;
}

}  // namespace

std::string TerminalSafe(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t at = 0;
  while (at < text.size()) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte >= 0x80) {
      const std::size_t length = PrintableSequence(text.substr(at));
      if (length == 0) {
        AppendEscaped(out, byte);
        ++at;
      } else {
        out.append(text.substr(at, length));
        at += length;
      }
    } else if ((byte < 0x20 && byte != '\t') || byte == 0x7F) {
      AppendEscaped(out, byte);
      ++at;
    } else {
      out += static_cast<char>(byte);
      ++at;
    }
  }
  return out;
}

ComputerDetails TerminalSafe(const ComputerDetails& computer) {
  ComputerDetails safe = computer;
  for (std::string* text : {&safe.summary.customerId, &safe.summary.domain, &safe.summary.name,
                            &safe.summary.lastKind}) {
    *text = TerminalSafe(*text);
  }
  for (auto& [classId, instances] : safe.inventory) {
    for (auto& [number, instance] : instances) {
      for (auto& [propertyId, value] : instance) value = TerminalSafe(value);
    }
  }
  for (auto& [name, value] : safe.agentParams) {
    name = TerminalSafe(name);
    value = TerminalSafe(value);
  }
  for (UploadRecord& upload : safe.uploads) {
    for (std::string* text : {&upload.kind, &upload.auditId, &upload.resourceId, &upload.scanTime,
                              &upload.previousScanTime}) {
      *text = TerminalSafe(*text);
    }
    for (ChangedItem& item : upload.items) item.label = TerminalSafe(item.label);
  }
  return safe;
}

}  // namespace tarn::refserver
