#include "platform/plist/plist_nesting.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn {
namespace {

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

// The element count of the object whose marker is at offset and where its content starts;
// nothing when the count runs off the end of the data.
struct Counted {
  std::uint64_t count;
  std::size_t position;
};
std::optional<Counted> CountOf(std::string_view bytes, std::uint64_t offset) {
  const auto marker = static_cast<unsigned char>(bytes[offset]);
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
  return Counted{count, position};
}

std::uint64_t OffsetOf(const BinaryLayout& layout, std::uint64_t object) {
  return ReadBigEndian(
      layout.bytes, static_cast<std::size_t>(layout.offsetTableStart + object * layout.offsetSize),
      layout.offsetSize);
}

// True for a string object (ASCII, UTF-16 or UTF-8) without a NUL character, and for every
// object that is not a string: libplist asserts on a string holding one. False also when the
// string runs off the end of the data.
bool TextWithoutNul(const BinaryLayout& layout, std::uint64_t offset) {
  const std::string_view bytes = layout.bytes;
  const unsigned kind = static_cast<unsigned char>(bytes[offset]) >> 4;
  if (kind != 0x5 && kind != 0x6 && kind != 0x7) return true;
  const std::optional<Counted> counted = CountOf(bytes, offset);
  const std::uint64_t unit = kind == 0x6 ? 2 : 1;
  if (!counted || counted->count > (bytes.size() - counted->position) / unit) return false;
  const std::string_view text = bytes.substr(counted->position, counted->count * unit);
  if (unit == 1) return text.find('\0') == std::string_view::npos;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    if (text[i] == '\0' && text[i + 1] == '\0') return false;
  }
  return true;
}

// The bytes of a string or data object's content as stored (UTF-16 text: two per unit);
// 0 for any other object; nothing when the content runs off the end of the data.
std::optional<std::uint64_t> PayloadBytes(const BinaryLayout& layout, std::uint64_t offset) {
  const std::string_view bytes = layout.bytes;
  const unsigned kind = static_cast<unsigned char>(bytes[offset]) >> 4;
  if (kind != 0x4 && kind != 0x5 && kind != 0x6 && kind != 0x7) return 0;
  const std::optional<Counted> counted = CountOf(bytes, offset);
  const std::uint64_t unit = kind == 0x6 ? 2 : 1;
  if (!counted || counted->count > (bytes.size() - counted->position) / unit) return std::nullopt;
  return counted->count * unit;
}

// The object references a container holds (for a dictionary: keys, then values); an empty
// list for a scalar; nothing when the object runs off the end of the data.
std::optional<std::vector<std::uint64_t>> ReferencesOf(const BinaryLayout& layout,
                                                       std::uint64_t object) {
  const std::string_view bytes = layout.bytes;
  const std::uint64_t offset = OffsetOf(layout, object);
  if (offset < kHeaderSize || offset >= layout.offsetTableStart) return std::nullopt;
  const auto marker = static_cast<unsigned char>(bytes[offset]);
  if (!IsContainerMarker(marker)) return std::vector<std::uint64_t>{};
  const std::optional<Counted> counted = CountOf(bytes, offset);
  if (!counted) return std::nullopt;
  const std::uint64_t count = counted->count;
  const std::size_t position = counted->position;
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
// an object down to its deepest descendant, "nodes" the number of values the object
// expands to when every reference is read as a copy (as libplist reads them) and "payload"
// the bytes of string and data content it expands to, all remembered per object so shared
// objects are walked once.
class BinaryDepthWalk {
 public:
  BinaryDepthWalk(const BinaryLayout& layout, const BinaryPlistLimits& limits)
      : layout_(layout),
        maxDepth_(static_cast<std::size_t>(limits.maxDepth)),
        maxNodes_(limits.maxNodes),
        maxPayload_(limits.maxPayloadBytes),
        state_(static_cast<std::size_t>(layout.objectCount), kUnseen),
        height_(static_cast<std::size_t>(layout.objectCount), 0),
        nodes_(static_cast<std::size_t>(layout.objectCount), 0),
        payload_(static_cast<std::size_t>(layout.objectCount), 0) {}

  bool Within() {
    if (!Enter(layout_.topObject)) return false;
    while (!stack_.empty() && !tooMany_) {
      Frame& frame = stack_.back();
      if (frame.next == frame.references.size()) {
        Leave();
        continue;
      }
      const std::uint64_t child = frame.references[frame.next++];
      const State childState = state_[static_cast<std::size_t>(child)];
      if (childState == kOnPath) return false;  // a cycle
      if (childState == kUnseen && !Enter(child)) return false;
      NoteChild(child);
    }
    const auto top = static_cast<std::size_t>(layout_.topObject);
    return !tooMany_ && height_[top] <= maxDepth_ && nodes_[top] <= maxNodes_ &&
           payload_[top] <= maxPayload_;
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
    nodes_[index] = 1;
    const std::uint64_t offset = OffsetOf(layout_, object);
    if (!IsContainerMarker(static_cast<unsigned char>(layout_.bytes[offset]))) {
      const std::optional<std::uint64_t> payload = PayloadBytes(layout_, offset);
      if (!payload || !TextWithoutNul(layout_, offset)) return false;
      payload_[index] = *payload;
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
    if (!stack_.empty()) NoteChild(static_cast<std::uint64_t>(index));
  }

  // Called for a child that is finished: raise the parent's height to the child's and add
  // the child's values and payload to the parent's.
  void NoteChild(std::uint64_t child) {
    const auto childIndex = static_cast<std::size_t>(child);
    if (state_[childIndex] != kDone || stack_.empty()) return;
    const auto parentIndex = static_cast<std::size_t>(stack_.back().object);
    height_[parentIndex] = std::max(height_[parentIndex], height_[childIndex]);
    // Every count stays at most its limit (or the walk stops), so no sum can overflow.
    nodes_[parentIndex] += nodes_[childIndex];
    payload_[parentIndex] += payload_[childIndex];
    if (nodes_[parentIndex] > maxNodes_ || payload_[parentIndex] > maxPayload_) tooMany_ = true;
  }

  const BinaryLayout& layout_;
  std::size_t maxDepth_;
  std::uint64_t maxNodes_;
  std::uint64_t maxPayload_;
  bool tooMany_ = false;
  std::vector<State> state_;
  std::vector<std::size_t> height_;
  std::vector<std::uint64_t> nodes_;
  std::vector<std::uint64_t> payload_;
  std::vector<Frame> stack_;
};

}  // namespace

bool BinaryNestingWithin(std::string_view bytes, const BinaryPlistLimits& limits) {
  const auto layout = ReadLayout(bytes);
  if (!layout) return false;
  return BinaryDepthWalk(*layout, limits).Within();
}

}  // namespace tarn
