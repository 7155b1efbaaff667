#include "tarninventory/src/snapshotfile.h"

#include <cstdint>
#include <cstring>

#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "platform/text/byte_words.h"
#include "platform/text/utf8.h"

namespace tarn {
namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kRootEnd = "</dict>\n</plist>\n";

// ---- Writing: libplist's layout, one tab per level of nesting.

// Whether each text is checked as it is written (raising where libplist would), or the
// whole text once at the end.
enum class TextCheck { kEach, kDeferred };

// An element's line: its indented start tag, the text, its end tag and the line end.
struct ElementLine {
  std::string_view start;
  std::string_view end;
};
constexpr ElementLine kClassKeyLine{"\t\t<key>", "</key>\n"};
constexpr ElementLine kKeyLine{"\t\t\t\t<key>", "</key>\n"};
constexpr ElementLine kStringLine{"\t\t\t\t<string>", "</string>\n"};

void AppendElement(std::string& out, const ElementLine& line, std::string_view text,
                   TextCheck check) {
  if (check == TextCheck::kEach) RequirePlistWritableText(text);
  out += line.start;
  AppendPlistXmlText(out, text);
  out += line.end;
}

void AppendInstance(std::string& out, const ScanData::Instance& instance, TextCheck check) {
  if (instance.size() == 0) {
    out += "\t\t\t<dict/>\n";
    return;
  }
  out += "\t\t\t<dict>\n";
  for (std::size_t i = 0; i < instance.size(); ++i) {
    const InstanceEntry entry = instance[i];
    AppendElement(out, kKeyLine, entry.key, check);
    AppendElement(out, kStringLine, entry.value, check);
  }
  out += "\t\t\t</dict>\n";
}

// The size of text as AppendPlistXmlText writes it.
std::size_t PlistXmlTextSize(std::string_view text) {
  std::size_t size = text.size();
  for (const char c : text) {
    if (c == '&') size += 4;  // &amp;
    if (c == '<' || c == '>') size += 3;  // &lt; &gt;
  }
  return size;
}

// The size of what AppendScanData writes, so that the text is allocated once.
std::size_t ScanDataSize(const ScanData& scanData) {
  // Per entry: two indents of four tabs, "<key></key>\n" and "<string></string>\n"; per
  // instance "<dict>" and "</dict>" lines; per class its key and "<array>" lines.
  constexpr std::size_t kEntry = 2 * 4 + 12 + 18;
  constexpr std::size_t kInstance = 24;
  constexpr std::size_t kClass = 40;
  std::size_t size = 64;
  for (std::size_t c = 0; c < scanData.ClassCount(); ++c) {
    size += kClass + PlistXmlTextSize(scanData.ClassKey(c));
    for (std::size_t i = 0; i < scanData.InstanceCount(c); ++i) {
      const ScanData::Instance instance = scanData.InstanceAt(c, i);
      size += kInstance;
      for (std::size_t e = 0; e < instance.size(); ++e) {
        const InstanceEntry entry = instance[e];
        size += kEntry + PlistXmlTextSize(entry.key) + PlistXmlTextSize(entry.value);
      }
    }
  }
  return size;
}

// "INVDatadict" and its value, as an entry of the root dictionary.
void AppendScanData(std::string& out, const ScanData& scanData, TextCheck check) {
  out += "\t<key>INVDatadict</key>\n";
  if (scanData.ClassCount() == 0) {
    out += "\t<dict/>\n";
    return;
  }
  out += "\t<dict>\n";
  for (std::size_t c = 0; c < scanData.ClassCount(); ++c) {
    AppendElement(out, kClassKeyLine, scanData.ClassKey(c), check);
    if (scanData.InstanceCount(c) == 0) {
      out += "\t\t<array/>\n";
      continue;
    }
    out += "\t\t<array>\n";
    for (std::size_t i = 0; i < scanData.InstanceCount(c); ++i) {
      AppendInstance(out, scanData.InstanceAt(c, i), check);
    }
    out += "\t\t</array>\n";
  }
  out += "\t</dict>\n";
}

// ---- Reading the plain shape.

class PlainReader {
 public:
  PlainReader(std::string_view in, bool build) : in_(in), build_(build) {}

  std::optional<PlainSnapshot> Read() {
    if (!ReadProlog() || !SkipSpace()) return std::nullopt;
    PlainSnapshot snapshot;
    if (Take("<dict/>")) {
      return ReadEpilog() ? std::optional<PlainSnapshot>(snapshot) : std::nullopt;
    }
    if (!Take("<dict>") || !SkipSpace()) return std::nullopt;
    if (!Take("</dict>")) {
      if (!Take("<key>") || !ReadText(key_) || key_ != kSnapshotScanDataKey || !Take("</key>") ||
          !SkipSpace() || !ReadScanData(snapshot) || !SkipSpace() || !Take("</dict>")) {
        return std::nullopt;
      }
    }
    return ReadEpilog() ? std::optional<PlainSnapshot>(std::move(snapshot)) : std::nullopt;
  }

 private:
  // Where an entry's key and value lie in instanceTexts_ (the value right after the key).
  struct EntryPlace {
    std::size_t offset;
    std::size_t keyLength;
    std::size_t valueLength;
  };

  bool AtEnd() const { return pos_ >= in_.size(); }

  bool Take(std::string_view token) {
    if (in_.compare(pos_, token.size(), token) != 0) return false;
    pos_ += token.size();
    return true;
  }
  // The same for a literal, compared with its length known to the compiler.
  template <std::size_t N>
  bool Take(const char (&token)[N]) {
    constexpr std::size_t kLength = N - 1;
    if (in_.size() - pos_ < kLength || std::memcmp(in_.data() + pos_, token, kLength) != 0) {
      return false;
    }
    pos_ += kLength;
    return true;
  }

  // White space between elements; always true.
  bool SkipSpace() {
    while (!AtEnd() && (in_[pos_] == ' ' || in_[pos_] == '\t' || in_[pos_] == '\n' ||
                        in_[pos_] == '\r')) {
      ++pos_;
    }
    return true;
  }

  // Attributes in the plain form ` name="value"`, then optional white space: true when the
  // tag continues with `end`, which is then taken.
  bool ReadAttributes(std::string_view end) {
    const auto isNameChar = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             c == ':' || c == '_' || c == '-';
    };
    for (;;) {
      if (Take(end)) return true;
      if (!Take(" ")) return false;
      SkipSpace();
      if (Take(end)) return true;
      const std::size_t nameStart = pos_;
      while (!AtEnd() && isNameChar(in_[pos_])) ++pos_;
      if (pos_ == nameStart || !Take("=\"")) return false;
      const std::size_t close = in_.find('"', pos_);
      if (close == std::string_view::npos ||
          in_.substr(pos_, close - pos_).find_first_of("<>&") != std::string_view::npos) {
        return false;
      }
      pos_ = close + 1;
    }
  }

  // The declaration this program writes, at the very start, or none; the platform's DOCTYPE
  // if any; then "<plist ...>". Any other declaration is left to the general reader, which
  // knows what XML allows there.
  bool ReadProlog() {
    static constexpr std::string_view kDeclaration =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
    static constexpr std::string_view kDoctype =
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">";
    Take(kDeclaration);
    SkipSpace();
    if (in_.substr(pos_).starts_with("<?")) return false;
    Take(kDoctype);
    SkipSpace();
    return Take("<plist") && ReadAttributes(">");
  }

  bool ReadEpilog() {
    SkipSpace();
    if (!Take("</plist>")) return false;
    SkipSpace();
    return AtEnd();
  }

  // Text up to the next "<", with the five named character entities decoded. False for any
  // other "&".
  bool ReadText(std::string& out) {
    out.clear();
    return AppendText(out);
  }

  // ReadText appending to out.
  bool AppendText(std::string& out) {
    while (!AtEnd()) {
      const std::size_t tag = in_.find('<', pos_);
      if (tag == std::string_view::npos) return false;
      const std::size_t entity = in_.substr(0, tag).find('&', pos_);
      const std::size_t stop = entity == std::string_view::npos ? tag : entity;
      out.append(in_, pos_, stop - pos_);
      pos_ = stop;
      if (stop == tag) return true;
      if (!ReadEntity(out)) return false;
    }
    return false;
  }

  bool ReadEntity(std::string& out) {
    static constexpr std::pair<std::string_view, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    for (const auto& [entity, character] : kEntities) {
      if (Take(entity)) {
        out += character;
        return true;
      }
    }
    return false;
  }

  bool ReadScanData(PlainSnapshot& snapshot) {
    snapshot.hasScanData = true;
    if (Take("<dict/>")) return true;
    if (!Take("<dict>")) return false;
    classKeys_.clear();
    for (;;) {
      SkipSpace();
      if (Take("</dict>")) return true;
      if (!Take("<key>") || !ReadText(classKey_) || !Take("</key>") || !SkipSpace()) {
        return false;
      }
      if (!FirstTime(classKeys_, classKey_)) return false;
      if (build_) snapshot.scanData.AddClass(classKey_);
      if (!ReadInstances(snapshot.scanData)) return false;
    }
  }

  bool ReadInstances(ScanData& scanData) {
    if (Take("<array/>")) return true;
    if (!Take("<array>")) return false;
    for (;;) {
      SkipSpace();
      if (Take("</array>")) return true;
      if (!ReadInstance()) return false;
      if (build_) FileInstance(scanData);
    }
  }

  // Reads one instance's entries into instanceTexts_ and instanceEntries_.
  bool ReadInstance() {
    instanceTexts_.clear();
    instanceEntries_.clear();
    if (Take("<dict/>")) return true;
    if (!Take("<dict>")) return false;
    for (;;) {
      SkipSpace();
      if (Take("</dict>")) return true;
      // Key and value are read straight into the instance's texts, one after the other.
      EntryPlace place{instanceTexts_.size(), 0, 0};
      if (!Take("<key>") || !AppendText(instanceTexts_) || !Take("</key>") || !SkipSpace()) {
        return false;
      }
      place.keyLength = instanceTexts_.size() - place.offset;
      if (!FirstInInstance(place)) return false;
      if (!Take("<string/>") &&
          (!Take("<string>") || !AppendText(instanceTexts_) || !Take("</string>"))) {
        return false;
      }
      place.valueLength = instanceTexts_.size() - place.offset - place.keyLength;
      instanceEntries_.push_back(place);
    }
  }

  // False when the instance has the key of `place` already (a repeated key is left to the
  // general reader).
  bool FirstInInstance(const EntryPlace& place) const {
    const std::string_view texts = instanceTexts_;
    const std::string_view key = texts.substr(place.offset, place.keyLength);
    for (const EntryPlace& earlier : instanceEntries_) {
      if (texts.substr(earlier.offset, earlier.keyLength) == key) return false;
    }
    return true;
  }

  void FileInstance(ScanData& scanData) {
    entryViews_.clear();
    const std::string_view texts = instanceTexts_;
    for (const EntryPlace& place : instanceEntries_) {
      entryViews_.push_back({texts.substr(place.offset, place.keyLength),
                             texts.substr(place.offset + place.keyLength, place.valueLength)});
    }
    scanData.AddInstance(classKey_, entryViews_);
  }

  // False when key was seen before in the same dictionary (a repeated key is left to the
  // general reader).
  static bool FirstTime(std::vector<std::string>& seen, const std::string& key) {
    for (const std::string& earlier : seen) {
      if (earlier == key) return false;
    }
    seen.push_back(key);
    return true;
  }

  std::string_view in_;
  bool build_;
  std::size_t pos_ = 0;
  std::string classKey_;
  std::string key_;
  std::string instanceTexts_;
  std::vector<EntryPlace> instanceEntries_;
  std::vector<InstanceEntry> entryViews_;
  std::vector<std::string> classKeys_;
};

}  // namespace

void AppendPlistXmlText(std::string& out, std::string_view text) {
  std::size_t runStart = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    // Text without markup characters passes a word at a time.
    while (i + 8 <= text.size()) {
      const std::uint64_t word = LoadWord(text.data() + i);
      if (HasByte(word, '&') || HasByte(word, '<') || HasByte(word, '>')) break;
      i += 8;
    }
    if (i == text.size()) break;
    const char c = text[i];
    if (c != '&' && c != '<' && c != '>') continue;
    out.append(text, runStart, i - runStart);
    out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : "&gt;";
    runStart = i + 1;
  }
  out.append(text, runStart);
}

std::string SnapshotXml(const std::vector<PlistValue::Entry>& otherEntries,
                        const ScanData& scanData) {
  std::string out;
  if (otherEntries.empty()) {
    out = kHeader;
    out += "<dict>\n";
  } else {
    // The other entries as libplist writes them, the dictionary left open.
    const PlistPtr others = PlistValue::MakeDictionary();
    for (const auto& [key, value] : otherEntries) others->SetValueForKey(key, value);
    out = ToXmlPlist(*others);
    out.resize(out.size() - kRootEnd.size());
  }
  const std::size_t start = out.size();
  out.reserve(out.size() + ScanDataSize(scanData) + kRootEnd.size());
  // Texts around ASCII markup make valid UTF-8 without NUL exactly when each text does, so
  // one check of the whole scan data suffices; when it fails, writing again with a check per
  // text raises as libplist would, at the first text it would refuse.
  AppendScanData(out, scanData, TextCheck::kDeferred);
  const std::string_view written = std::string_view(out).substr(start);
  if (!IsValidUtf8(written) || written.find('\0') != std::string_view::npos) {
    out.resize(start);
    AppendScanData(out, scanData, TextCheck::kEach);
  }
  out += kRootEnd;
  return out;
}

std::optional<PlainSnapshot> ReadPlainSnapshot(std::string_view bytes, bool buildScanData) {
  // As ParsePlist: XML that is not UTF-8 or holds a NUL byte is no property list.
  if (!IsValidUtf8(bytes) || bytes.find('\0') != std::string_view::npos) return std::nullopt;
  return PlainReader(bytes, buildScanData).Read();
}

}  // namespace tarn
