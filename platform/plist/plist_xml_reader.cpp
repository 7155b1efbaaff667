#include "platform/plist/plist_xml_reader.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/text/utf8.h"
#include "platform/text/xml_markup_bounds.h"

namespace tarn {
namespace {

// ---- Element texts to values, as libplist's XML reader reads them.

// An optional sign, then the number as strtoull reads it in base 0 (so "0x1f" and octal
// "010" too); a minus sign negates the unsigned value. The 64 bits read as a signed integer,
// as libplist's unsigned ones are read back.
PlistPtr IntegerValue(const std::string& text) {
  const char* digits = text.c_str();
  while (std::isspace(static_cast<unsigned char>(*digits))) ++digits;
  const bool negative = *digits == '-';
  if (negative || *digits == '+') ++digits;
  const std::uint64_t magnitude = std::strtoull(digits, nullptr, 0);
  return PlistValue::MakeInteger(static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude));
}

PlistPtr RealValue(const std::string& text) {
  return PlistValue::MakeReal(std::strtod(text.c_str(), nullptr));
}

// "YYYY-MM-DDTHH:MM:SS" (anything after it is ignored, fields that do not read stay at their
// start) as whole seconds since 2001; a text shorter than 11 or longer than 31 bytes reads
// as the Unix epoch, a time outside the 32-bit range as its lowest value. (An empty-element
// tag, <date/>, is the reference date itself: see TreeBuilder::End.)
PlistPtr DateValue(const std::string& text) {
  constexpr std::int64_t kUnixTo2001 = 978307200;
  std::int64_t seconds = -kUnixTo2001;
  if (text.size() >= 11 && text.size() <= 31) {
    std::tm parts{};
    ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    seconds = static_cast<std::int64_t>(::timegm(&parts)) - kUnixTo2001;
    if (seconds < INT32_MIN || seconds > INT32_MAX) seconds = INT32_MIN;
  }
  return PlistValue::MakeDate(static_cast<double>(seconds));
}

// The value of a base-64 digit, kPad for "=", kSkip for any other byte.
constexpr int kPad = -1;
constexpr int kSkip = -2;
constexpr std::array<int, 256> kBase64Digits = [] {
  std::array<int, 256> digits{};
  digits.fill(kSkip);
  const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 64; ++i) digits[static_cast<unsigned char>(alphabet[i])] = i;
  digits['='] = kPad;
  return digits;
}();

// Base 64 read in groups of four digits, bytes outside the alphabet skipped; "=" ends a
// group early (one that starts with it gives nothing), and an unfinished last group is
// dropped.
PlistPtr DataValue(const std::string& text) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::array<int, 4> group{};
  std::size_t filled = 0;
  for (const char c : text) {
    const int digit = kBase64Digits[static_cast<unsigned char>(c)];
    if (digit == kSkip) continue;
    group[filled++] = digit;
    if (filled < group.size()) continue;
    filled = 0;
    if (group[0] == kPad || group[1] == kPad) continue;
    const auto at = [&group](std::size_t i) { return group[i] < 0 ? 0 : group[i]; };
    bytes.push_back(static_cast<std::uint8_t>((at(0) << 2) | (at(1) >> 4)));
    if (group[2] == kPad) continue;
    bytes.push_back(static_cast<std::uint8_t>(((at(1) & 0x0F) << 4) | (at(2) >> 2)));
    if (group[3] == kPad) continue;
    bytes.push_back(static_cast<std::uint8_t>(((at(2) & 0x03) << 6) | at(3)));
  }
  return PlistValue::MakeData(std::move(bytes));
}

// ---- Characters XML refuses.

// Characters libplist keeps in texts and XML does not. XML reads every line end as a line
// feed: from the first element on, a carriage return outside a tag becomes a character
// reference, which XML keeps. XML refuses C0 controls other than tab, line feed and carriage
// return, and U+FFFE and U+FFFF, even as references (libplist writes them as they are): they
// become the private-use characters U+10FF01 to U+10FF1F, U+10FF20 and U+10FF21, turned
// back by Restore. A document that holds one of those stand-ins itself is refused.
constexpr std::string_view kStandInLead = "\xF4\x8F\xBC";   // then 0x80 + the number below
constexpr std::string_view kNoncharacterLead = "\xEF\xBF";  // then 0xBE or 0xBF
constexpr int kFirstNoncharacter = 0x20;                    // U+FFFE; U+FFFF is next

bool IsRefusedControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

// The stand-in number of the U+FFFE or U+FFFF at i, or 0.
int NoncharacterAt(std::string_view text, std::size_t i) {
  if (text.compare(i, 2, kNoncharacterLead) != 0 || i + 2 >= text.size()) return 0;
  const auto last = static_cast<unsigned char>(text[i + 2]);
  return last == 0xBE || last == 0xBF ? kFirstNoncharacter + (last - 0xBE) : 0;
}

bool IsStandInAt(std::string_view text, std::size_t i) {
  return text.compare(i, 3, kStandInLead) == 0 && i + 3 < text.size() &&
         static_cast<unsigned char>(text[i + 3]) >= 0x80 &&
         static_cast<unsigned char>(text[i + 3]) <= 0x80 + kFirstNoncharacter + 1;
}

bool NeedsStandIns(std::string_view xml) {
  for (std::size_t i = 0; i < xml.size(); ++i) {
    const char c = xml[i];
    if (c == '\r' || IsRefusedControl(c) || (c == '\xEF' && NoncharacterAt(xml, i) != 0) ||
        (c == '\xF4' && IsStandInAt(xml, i))) {
      return true;
    }
  }
  return false;
}

// The document with the stand-ins; nothing when it holds one already.
std::optional<std::string> WithStandIns(std::string_view xml) {
  std::string kept;
  kept.reserve(xml.size() + 256);
  bool inTag = false;
  bool inElements = false;
  for (std::size_t i = 0; i < xml.size(); ++i) {
    const char c = xml[i];
    int standIn = 0;
    if (c == '<') {
      inTag = true;
      if (i + 1 < xml.size() && xml[i + 1] != '?' && xml[i + 1] != '!') inElements = true;
    } else if (c == '>') {
      inTag = false;
    } else if (c == '\r' && inElements && !inTag) {
      kept += "&#13;";
      continue;
    } else if (IsRefusedControl(c)) {
      standIn = c;
    } else if (c == '\xEF' && (standIn = NoncharacterAt(xml, i)) != 0) {
      i += 2;
    } else if (c == '\xF4' && IsStandInAt(xml, i)) {
      return std::nullopt;
    }
    if (standIn == 0) {
      kept += c;
      continue;
    }
    kept += kStandInLead;
    kept += static_cast<char>(0x80 + standIn);
  }
  return kept;
}

// A text read from a document made by WithStandIns, with its characters turned back.
void Restore(std::string& text) {
  std::size_t at = text.find(kStandInLead);
  if (at == std::string::npos) return;
  std::string restored(text, 0, at);
  for (; at < text.size(); ++at) {
    if (!IsStandInAt(text, at)) {
      restored += text[at];
      continue;
    }
    const int standIn = static_cast<unsigned char>(text[at + 3]) - 0x80;
    if (standIn < kFirstNoncharacter) {
      restored += static_cast<char>(standIn);
    } else {
      restored += kNoncharacterLead;
      restored += static_cast<char>(0xBE + standIn - kFirstNoncharacter);
    }
    at += 3;
  }
  text = std::move(restored);
}

// ---- The elements of a property list.

enum class Kind {
  kPlist,
  kDict,
  kArray,
  kKey,
  kString,
  kInteger,
  kReal,
  kDate,
  kData,
  kTrue,
  kFalse
};

std::optional<Kind> KindNamed(const char* name) {
  static constexpr std::pair<const char*, Kind> kNames[] = {
      {"dict", Kind::kDict},   {"key", Kind::kKey},         {"string", Kind::kString},
      {"array", Kind::kArray}, {"integer", Kind::kInteger}, {"true", Kind::kTrue},
      {"false", Kind::kFalse}, {"date", Kind::kDate},       {"data", Kind::kData},
      {"real", Kind::kReal},   {"plist", Kind::kPlist}};
  for (const auto& [word, kind] : kNames) {
    if (std::strcmp(name, word) == 0) return kind;
  }
  return std::nullopt;
}

bool IsContainer(Kind kind) { return kind == Kind::kDict || kind == Kind::kArray; }
bool HoldsElements(Kind kind) { return IsContainer(kind) || kind == Kind::kPlist; }

PlistPtr ScalarValue(Kind kind, std::string&& text) {
  switch (kind) {
    case Kind::kString:
      return PlistValue::MakeString(std::move(text));
    case Kind::kInteger:
      return IntegerValue(text);
    case Kind::kReal:
      return RealValue(text);
    case Kind::kDate:
      return DateValue(text);
    case Kind::kData:
      return DataValue(text);
    case Kind::kTrue:
      return PlistValue::MakeBoolean(true);
    case Kind::kFalse:
      return PlistValue::MakeBoolean(false);
    default:
      return nullptr;
  }
}

// Texts and keys are UTF-8 without a NUL character. A document that is UTF-8 gives such
// texts unless a character reference makes one (a lone surrogate, say).
bool IsAcceptableText(std::string_view text) {
  return IsValidUtf8(text) && text.find('\0') == std::string_view::npos;
}

// Builds the tree from libxml2's events. Every value is attached to its parent (or made the
// root) as soon as it is complete, containers as soon as they open, so the root holds
// everything built; the first fault stops the parser.
class TreeBuilder {
 public:
  TreeBuilder(xmlParserCtxtPtr parser, int maxDepth, bool standIns)
      : parser_(parser), maxDepth_(maxDepth), standIns_(standIns) {}

  void Start(const xmlChar* name, const xmlChar* prefix) {
    if (failed_) return;
    const std::optional<Kind> kind = KindNamed(reinterpret_cast<const char*>(name));
    if (prefix != nullptr || !kind || !Accepts(*kind)) return Fail();
    // A value lies one level below the containers open around it.
    if (*kind != Kind::kPlist && *kind != Kind::kKey && depth_ + 1 > maxDepth_) return Fail();
    // The parser stands at the end of the tag: "/>" for an empty-element tag.
    const bool emptyTag = parser_->input != nullptr && parser_->input->cur != nullptr &&
                          parser_->input->cur[0] == '/';
    Frame frame{*kind, nullptr, {}, false, emptyTag};
    if (IsContainer(*kind)) {
      ++depth_;
      frame.value = *kind == Kind::kDict ? PlistValue::MakeDictionary() : PlistValue::MakeArray();
      Attach(frame.value);
    }
    text_.clear();
    open_.push_back(std::move(frame));
  }

  void End() {
    if (failed_) return;
    if (open_.empty()) return Fail();
    Frame frame = std::move(open_.back());
    open_.pop_back();
    if (standIns_ && !HoldsElements(frame.kind)) Restore(text_);
    if (IsContainer(frame.kind)) {
      --depth_;
      if (frame.hasKey) return Fail();  // a key without its value
    } else if (frame.kind == Kind::kKey) {
      if (!IsAcceptableText(text_)) return Fail();
      open_.back().key = std::move(text_);
      open_.back().hasKey = true;
    } else if (frame.kind == Kind::kPlist) {
      if (!root_) return Fail();
    } else if (frame.kind == Kind::kDate && frame.emptyTag) {
      Attach(PlistValue::MakeDate(0));
    } else {
      if (frame.kind == Kind::kString && !IsAcceptableText(text_)) return Fail();
      Attach(ScalarValue(frame.kind, std::move(text_)));
    }
  }

  // Text of a value element is its value; between elements only white space may stand.
  void Text(const xmlChar* text, int length) {
    if (failed_ || open_.empty()) return;
    const char* begin = reinterpret_cast<const char*>(text);
    if (!HoldsElements(open_.back().kind)) {
      text_.append(begin, static_cast<std::size_t>(length));
      return;
    }
    for (int i = 0; i < length; ++i) {
      if (!std::isspace(static_cast<unsigned char>(begin[i]))) return Fail();
    }
  }

  void Fail() {
    failed_ = true;
    xmlStopParser(parser_);
  }

  // The finished tree; absent after any fault.
  PlistPtr Take() { return failed_ || !open_.empty() ? nullptr : std::move(root_); }

 private:
  struct Frame {
    Kind kind;
    PlistPtr value;   // containers
    std::string key;  // dictionaries: the key read, awaiting its value
    bool hasKey;
    bool emptyTag;  // written as <name/>
  };

  // Whether an element of the kind may stand where the parser is.
  bool Accepts(Kind kind) const {
    if (open_.empty()) return !root_ && kind != Kind::kKey;
    const Frame& parent = open_.back();
    switch (parent.kind) {
      case Kind::kPlist:
        return !root_ && kind != Kind::kPlist && kind != Kind::kKey;
      case Kind::kArray:
        return kind != Kind::kPlist && kind != Kind::kKey;
      case Kind::kDict:
        return kind != Kind::kPlist && (kind == Kind::kKey) != parent.hasKey;
      default:
        return false;  // nothing nests in a value element
    }
  }

  // A repeated key keeps its first place and takes the last value, as libplist keeps it.
  void Attach(PlistPtr value) {
    if (open_.empty() || open_.back().kind == Kind::kPlist) {
      root_ = std::move(value);
      return;
    }
    Frame& parent = open_.back();
    if (parent.kind == Kind::kArray) {
      parent.value->Append(std::move(value));
      return;
    }
    parent.value->SetValueForKey(parent.key, std::move(value));
    parent.hasKey = false;
  }

  xmlParserCtxtPtr parser_;
  int maxDepth_;
  bool standIns_;  // texts may hold the stand-ins of WithStandIns
  int depth_ = 0;  // containers open
  bool failed_ = false;
  std::vector<Frame> open_;
  std::string text_;
  PlistPtr root_;
};

TreeBuilder& BuilderOf(void* context) {
  return *static_cast<TreeBuilder*>(static_cast<xmlParserCtxtPtr>(context)->_private);
}

void OnStart(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar*, int,
             const xmlChar**, int, int, const xmlChar**) {
  BuilderOf(context).Start(name, prefix);
}
void OnEnd(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  BuilderOf(context).End();
}
void OnText(void* context, const xmlChar* text, int length) {
  BuilderOf(context).Text(text, length);
}
// An internal subset of the document type declaration is refused: nothing a tool writes has
// one, entities declared there expand a small document into a large one, and attribute
// defaults add namespace declarations to every element. The parser stands at its "[".
void OnDoctype(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  const auto parser = static_cast<xmlParserCtxtPtr>(context);
  if (parser->input != nullptr && parser->input->cur != nullptr && parser->input->cur[0] == '[') {
    BuilderOf(context).Fail();
  }
}
void OnEntityDeclaration(void* context, const xmlChar*, int, const xmlChar*, const xmlChar*,
                         xmlChar*) {
  BuilderOf(context).Fail();
}

xmlSAXHandler MakeHandler() {
  xmlSAXHandler handler{};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = OnStart;
  handler.endElementNs = OnEnd;
  handler.characters = OnText;
  handler.ignorableWhitespace = OnText;
  handler.cdataBlock = OnText;
  handler.internalSubset = OnDoctype;
  handler.entityDecl = OnEntityDeclaration;
  return handler;
}

// Hands the parser the next piece of the text (the view is what is left unread).
int ReadChunk(void* context, char* buffer, int length) {
  auto& unread = *static_cast<std::string_view*>(context);
  const std::size_t count = std::min(unread.size(), static_cast<std::size_t>(std::max(length, 0)));
  std::memcpy(buffer, unread.data(), count);
  unread.remove_prefix(count);
  return static_cast<int>(count);
}

}  // namespace

PlistPtr ReadXmlPlist(std::string_view xml, int maxDepth) {
  // Elements of a property list carry no attributes that matter, and no namespaces.
  const XmlMarkupCounts counts = CountXmlMarkup(xml);
  if (counts.mostAttributes > 16 || counts.namespaceDeclarations > 0) return nullptr;
  std::optional<std::string> withStandIns;
  if (NeedsStandIns(xml)) {
    withStandIns = WithStandIns(xml);
    if (!withStandIns) return nullptr;
    xml = *withStandIns;
  }
  // The parser reads the text a chunk at a time and drops what it has read: no copy of a
  // large report is made.
  std::string_view unread = xml;
  xmlParserCtxtPtr parser =
      xmlCreateIOParserCtxt(nullptr, nullptr, ReadChunk, nullptr, &unread, XML_CHAR_ENCODING_NONE);
  if (parser == nullptr) return nullptr;
  static const xmlSAXHandler kHandler = MakeHandler();
  xmlSAXHandler handler = kHandler;
  // The context frees its own handler; this one lives on the stack until the parse ends.
  xmlSAXHandlerPtr own = parser->sax;
  parser->sax = &handler;
  TreeBuilder builder(parser, maxDepth, withStandIns.has_value());
  parser->_private = &builder;
  xmlCtxtUseOptions(
      parser, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_IGNORE_ENC);
  xmlParseDocument(parser);
  const bool wellFormed = parser->wellFormed != 0;
  // libxml2 keeps entity declarations in a document of its own even when reading for events.
  if (parser->myDoc != nullptr) xmlFreeDoc(parser->myDoc);
  parser->myDoc = nullptr;
  parser->sax = own;
  xmlFreeParserCtxt(parser);
  PlistPtr root = builder.Take();
  return wellFormed ? root : nullptr;
}

}  // namespace tarn
