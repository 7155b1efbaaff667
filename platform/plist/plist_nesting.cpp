#include "platform/plist/plist_nesting.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn {
namespace {

// Position just past the terminator, or npos when the construct is not terminated.
std::size_t SkipPast(std::string_view text, std::size_t from, std::string_view terminator) {
  const std::size_t end = text.find(terminator, from);
  return end == std::string_view::npos ? end : end + terminator.size();
}

bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == ':' || c == '.';
}

// ---- Binary layout: the 32-byte trailer and the object table.

struct BinaryLayout {
  std::string_view bytes;
  unsigned offsetSize = 0;
  unsigned referenceSize = 0;
  std::uint64_t objectCount = 0;
  std::uint64_t topObject = 0;
  std::uint64_t offsetTableStart = 0;
};

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

std::uint64_t ReadBigEndian(std::string_view bytes, std::size_t position, unsigned width) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) {
    value = (value << 8) | static_cast<unsigned char>(bytes[position + i]);
  }
  return value;
}

bool ValidWidth(unsigned width) { return width == 1 || width == 2 || width == 4 || width == 8; }

std::optional<BinaryLayout> ReadLayout(std::string_view bytes) {
  if (bytes.size() < kHeaderSize + kTrailerSize || bytes.substr(0, 8) != "bplist00")
    return std::nullopt;
  const std::size_t trailer = bytes.size() - kTrailerSize;
  BinaryLayout layout;
  layout.bytes = bytes;
  layout.offsetSize = static_cast<unsigned char>(bytes[trailer + 6]);
  layout.referenceSize = static_cast<unsigned char>(bytes[trailer + 7]);
  layout.objectCount = ReadBigEndian(bytes, trailer + 8, 8);
  layout.topObject = ReadBigEndian(bytes, trailer + 16, 8);
  layout.offsetTableStart = ReadBigEndian(bytes, trailer + 24, 8);
  if (!ValidWidth(layout.offsetSize) || !ValidWidth(layout.referenceSize)) return std::nullopt;
  // Every object takes at least one byte, so a count beyond the size is a damaged trailer.
  if (layout.objectCount == 0 || layout.objectCount > bytes.size()) return std::nullopt;
  if (layout.topObject >= layout.objectCount) return std::nullopt;
  if (layout.offsetTableStart > trailer ||
      (trailer - layout.offsetTableStart) / layout.offsetSize < layout.objectCount) {
    return std::nullopt;
  }
  return layout;
}

bool IsContainerMarker(unsigned char marker) {
  const unsigned kind = marker >> 4;
  return kind == 0xA || kind == 0xC || kind == 0xD;
}

// The object references a container holds (for a dictionary: keys, then values); an empty
// list for a scalar; nothing when the object runs off the end of the data.
std::optional<std::vector<std::uint64_t>> ReferencesOf(const BinaryLayout& layout,
                                                       std::uint64_t object) {
  const std::string_view bytes = layout.bytes;
  const std::uint64_t offset = ReadBigEndian(
      bytes, static_cast<std::size_t>(layout.offsetTableStart + object * layout.offsetSize),
      layout.offsetSize);
  if (offset < kHeaderSize || offset >= layout.offsetTableStart) return std::nullopt;
  const auto marker = static_cast<unsigned char>(bytes[offset]);
  if (!IsContainerMarker(marker)) return std::vector<std::uint64_t>{};
  std::size_t position = static_cast<std::size_t>(offset) + 1;
  std::uint64_t count = marker & 0x0F;
  if (count == 0x0F) {
    if (position >= bytes.size()) return std::nullopt;
    const auto countMarker = static_cast<unsigned char>(bytes[position]);
    const unsigned width = 1U << (countMarker & 0x0F);
    if ((countMarker >> 4) != 0x1 || width > 8 || position + 1 + width > bytes.size()) {
      return std::nullopt;
    }
    count = ReadBigEndian(bytes, position + 1, width);
    position += 1 + width;
  }
  const std::uint64_t referenceCount = (marker >> 4) == 0xD ? count * 2 : count;
  if (count > bytes.size() || referenceCount > (bytes.size() - position) / layout.referenceSize) {
    return std::nullopt;
  }
  std::vector<std::uint64_t> references;
  references.reserve(static_cast<std::size_t>(referenceCount));
  for (std::uint64_t i = 0; i < referenceCount; ++i) {
    const std::uint64_t reference = ReadBigEndian(
        bytes, position + static_cast<std::size_t>(i) * layout.referenceSize, layout.referenceSize);
    if (reference >= layout.objectCount) return std::nullopt;
    references.push_back(reference);
  }
  return references;
}

// Depth-first walk with an explicit stack; "height" is the number of nested containers from
// an object down to its deepest descendant, remembered per object so shared objects are
// walked once.
class BinaryDepthWalk {
 public:
  BinaryDepthWalk(const BinaryLayout& layout, int maxDepth)
      : layout_(layout),
        maxDepth_(static_cast<std::size_t>(maxDepth)),
        state_(static_cast<std::size_t>(layout.objectCount), kUnseen),
        height_(static_cast<std::size_t>(layout.objectCount), 0) {}

  bool Within() {
    if (!Enter(layout_.topObject)) return false;
    while (!stack_.empty()) {
      Frame& frame = stack_.back();
      if (frame.next == frame.references.size()) {
        Leave();
        continue;
      }
      const std::uint64_t child = frame.references[frame.next++];
      const State childState = state_[static_cast<std::size_t>(child)];
      if (childState == kOnPath) return false;  // a cycle
      if (childState == kUnseen && !Enter(child)) return false;
      NoteChildHeight(child);
    }
    return height_[static_cast<std::size_t>(layout_.topObject)] <= maxDepth_;
  }

 private:
  enum State : std::uint8_t { kUnseen, kOnPath, kDone };
  struct Frame {
    std::uint64_t object;
    std::vector<std::uint64_t> references;
    std::size_t next = 0;
  };

  bool Enter(std::uint64_t object) {
    auto references = ReferencesOf(layout_, object);
    if (!references) return false;
    const auto index = static_cast<std::size_t>(object);
    const std::uint64_t offset = ReadBigEndian(
        layout_.bytes,
        static_cast<std::size_t>(layout_.offsetTableStart + object * layout_.offsetSize),
        layout_.offsetSize);
    if (!IsContainerMarker(static_cast<unsigned char>(layout_.bytes[offset]))) {
      state_[index] = kDone;
      height_[index] = 0;
      return true;
    }
    if (stack_.size() >= maxDepth_) return false;
    state_[index] = kOnPath;
    stack_.push_back(Frame{object, std::move(*references), 0});
    return true;
  }

  void Leave() {
    const auto index = static_cast<std::size_t>(stack_.back().object);
    state_[index] = kDone;
    height_[index] += 1;  // the container itself
    stack_.pop_back();
    if (!stack_.empty()) NoteChildHeight(static_cast<std::uint64_t>(index));
  }

  // Called for a child that is finished: raise the parent's height to the child's.
  void NoteChildHeight(std::uint64_t child) {
    const auto childIndex = static_cast<std::size_t>(child);
    if (state_[childIndex] != kDone || stack_.empty()) return;
    auto& parentHeight = height_[static_cast<std::size_t>(stack_.back().object)];
    parentHeight = std::max(parentHeight, height_[childIndex]);
  }

  const BinaryLayout& layout_;
  std::size_t maxDepth_;
  std::vector<State> state_;
  std::vector<std::size_t> height_;
  std::vector<Frame> stack_;
};

}  // namespace

bool XmlNestingWithin(std::string_view xml, int maxDepth) {
  int depth = 0;
  std::size_t i = 0;
  while ((i = xml.find('<', i)) != std::string_view::npos) {
    const std::string_view rest = xml.substr(i);
    if (rest.starts_with("<!--")) {
      i = SkipPast(xml, i + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      i = SkipPast(xml, i + 9, "]]>");
    } else if (rest.starts_with("<!") || rest.starts_with("<?")) {
      i = SkipPast(xml, i + 2, ">");
    } else {
      const bool closing = rest.size() > 1 && rest[1] == '/';
      std::size_t nameEnd = i + (closing ? 2 : 1);
      const std::size_t nameStart = nameEnd;
      while (nameEnd < xml.size() && IsNameChar(xml[nameEnd])) ++nameEnd;
      const std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
      const std::size_t tagEnd = xml.find('>', nameEnd);
      if (tagEnd == std::string_view::npos) return false;
      const bool selfClosing = xml[tagEnd - 1] == '/';
      if (name == "dict" || name == "array") {
        if (closing) {
          depth = std::max(0, depth - 1);
        } else if (!selfClosing && ++depth > maxDepth) {
          return false;
        }
      }
      i = tagEnd + 1;
    }
    if (i == std::string_view::npos) return false;
  }
  return true;
}

bool BinaryNestingWithin(std::string_view bytes, int maxDepth) {
  const auto layout = ReadLayout(bytes);
  if (!layout) return false;
  return BinaryDepthWalk(*layout, maxDepth).Within();
}

}  // namespace tarn
