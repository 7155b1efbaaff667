// An owned block of bytes that always ends with one extra zero byte, so every
// stored value can also be read as NUL-terminated text. This is the storage
// form of store values: integers, floats, texts and date/time records alike.
//
// A block is 16 bytes: values of up to kInlineBytes bytes (every integer,
// float and date record, and short texts) are kept in place; longer ones in
// one heap block. Tables hold one block per column of every row, so the
// common values cost no allocation at all.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <type_traits>

namespace tarn {

class OwnedBlock {
 public:
  // The most bytes kept in place (the terminating zero byte comes on top).
  static constexpr std::size_t kInlineBytes = 14;

  OwnedBlock() noexcept { SetInline(0); }

  // A block holding a copy of size bytes of source, then a zero byte.
  static OwnedBlock Copy(const void* source, std::size_t size) {
    OwnedBlock block;
    block.Assign(static_cast<const unsigned char*>(source), size);
    return block;
  }

  // A block holding the object representation of a trivially copyable value.
  template <typename T>
  static OwnedBlock Of(const T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    return Copy(&value, sizeof(T));
  }

  OwnedBlock(const OwnedBlock& other) : OwnedBlock() { Assign(other.data(), other.size()); }
  OwnedBlock(OwnedBlock&& other) noexcept : OwnedBlock() { Take(other); }
  OwnedBlock& operator=(const OwnedBlock& other) {
    if (this != &other) {
      OwnedBlock copy(other);
      Release();
      Take(copy);
    }
    return *this;
  }
  OwnedBlock& operator=(OwnedBlock&& other) noexcept {
    if (this != &other) {
      Release();
      Take(other);
    }
    return *this;
  }
  ~OwnedBlock() { Release(); }

  // Reads the first sizeof(T) bytes as a T; a shorter block reads as if
  // padded with zero bytes.
  template <typename T>
  T Read() const {
    static_assert(std::is_trivially_copyable_v<T>);
    unsigned char raw[sizeof(T)] = {};
    std::memcpy(raw, data(), std::min(sizeof(T), size() + 1));
    T value;
    std::memcpy(&value, raw, sizeof(T));
    return value;
  }

  std::size_t size() const noexcept {
    return IsHeap() ? HeapSize() : static_cast<std::size_t>(raw_[kTagByte]);
  }
  const unsigned char* data() const noexcept { return IsHeap() ? HeapBytes() : raw_; }
  const char* c_str() const noexcept { return reinterpret_cast<const char*>(data()); }

  friend bool operator==(const OwnedBlock& a, const OwnedBlock& b) noexcept {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
  }

 private:
  friend class OptionalBlock;

  // Layout: bytes 0..14 hold an inline value and its zero byte; byte 15 is the tag: the
  // inline size, kHeapTag (bytes 0..7 a pointer, 8..11 the size), or kEmptyTag (no value,
  // only in an OptionalBlock).
  static constexpr std::size_t kTagByte = 15;
  static constexpr unsigned char kHeapTag = 0x80;
  static constexpr unsigned char kEmptyTag = 0x81;

  struct EmptyTag {};
  explicit OwnedBlock(EmptyTag) noexcept { raw_[kTagByte] = kEmptyTag; }

  bool IsHeap() const noexcept { return raw_[kTagByte] == kHeapTag; }
  bool IsEmpty() const noexcept { return raw_[kTagByte] == kEmptyTag; }

  unsigned char* HeapBytes() const noexcept {
    unsigned char* bytes;
    std::memcpy(&bytes, raw_, sizeof bytes);
    return bytes;
  }
  std::size_t HeapSize() const noexcept {
    std::uint32_t size;
    std::memcpy(&size, raw_ + sizeof(unsigned char*), sizeof size);
    return size;
  }

  void SetInline(std::size_t size) noexcept {
    raw_[size] = 0;
    raw_[kTagByte] = static_cast<unsigned char>(size);
  }

  // Replaces an inline or empty state (nothing to free) with a copy of the bytes.
  // GCC 12 at -O2 cannot see that size bounds the copy when the source is a small object and
  // reports an out-of-bounds read (-Warray-bounds / -Wstringop-overread); the copy reads
  // exactly size bytes of the source.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#pragma GCC diagnostic ignored "-Wstringop-overread"
#endif
  void Assign(const unsigned char* source, std::size_t size) {
    if (size <= kInlineBytes) {
      if (size != 0) std::memcpy(raw_, source, size);
      SetInline(size);
      return;
    }
    if (size >= UINT32_MAX) throw std::length_error("store value too long");
    auto* bytes = new unsigned char[size + 1];
    std::memcpy(bytes, source, size);
    bytes[size] = 0;
    const auto size32 = static_cast<std::uint32_t>(size);
    std::memcpy(raw_, &bytes, sizeof bytes);
    std::memcpy(raw_ + sizeof bytes, &size32, sizeof size32);
    raw_[kTagByte] = kHeapTag;
  }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

  // Takes other's state (this holds nothing to free); other becomes an empty block.
  void Take(OwnedBlock& other) noexcept {
    std::memcpy(raw_, other.raw_, sizeof raw_);
    other.SetInline(0);
  }

  void Release() noexcept {
    if (IsHeap()) delete[] HeapBytes();
    SetInline(0);
  }

  alignas(8) unsigned char raw_[16] = {};
};

static_assert(sizeof(OwnedBlock) == 16);

// An OwnedBlock or nothing (a null store value), in the space of one block: the
// subset of std::optional<OwnedBlock> the store uses.
class OptionalBlock {
 public:
  OptionalBlock() noexcept : block_(OwnedBlock::EmptyTag{}) {}
  // Implicit, as std::optional's.
  OptionalBlock(std::nullopt_t) noexcept : OptionalBlock() {}
  OptionalBlock(OwnedBlock block) noexcept : block_(std::move(block)) {}
  OptionalBlock(const OptionalBlock& other) : OptionalBlock() {
    if (other) block_ = other.block_;
  }
  OptionalBlock(OptionalBlock&& other) noexcept : OptionalBlock() { MoveFrom(other); }
  OptionalBlock& operator=(const OptionalBlock& other) {
    if (this != &other) {
      OptionalBlock copy(other);
      reset();
      MoveFrom(copy);
    }
    return *this;
  }
  OptionalBlock& operator=(OptionalBlock&& other) noexcept {
    if (this != &other) {
      reset();
      MoveFrom(other);
    }
    return *this;
  }
  OptionalBlock& operator=(std::nullopt_t) noexcept {
    reset();
    return *this;
  }
  OptionalBlock& operator=(OwnedBlock block) noexcept {
    reset();
    block_ = std::move(block);
    return *this;
  }
  ~OptionalBlock() = default;  // an empty block holds nothing to free

  bool has_value() const noexcept { return !block_.IsEmpty(); }
  explicit operator bool() const noexcept { return has_value(); }
  const OwnedBlock& operator*() const noexcept { return block_; }
  OwnedBlock& operator*() noexcept { return block_; }
  const OwnedBlock* operator->() const noexcept { return &block_; }
  OwnedBlock* operator->() noexcept { return &block_; }
  void reset() noexcept {
    if (has_value()) block_.Release();
    block_.raw_[OwnedBlock::kTagByte] = OwnedBlock::kEmptyTag;
  }

  friend bool operator==(const OptionalBlock& a, const OptionalBlock& b) noexcept {
    return a.has_value() == b.has_value() && (!a.has_value() || *a == *b);
  }

 private:
  // Takes other's state (this is empty); other becomes empty.
  void MoveFrom(OptionalBlock& other) noexcept {
    std::memcpy(block_.raw_, other.block_.raw_, sizeof block_.raw_);
    other.block_.raw_[OwnedBlock::kTagByte] = OwnedBlock::kEmptyTag;
  }

  OwnedBlock block_;
};

static_assert(sizeof(OptionalBlock) == 16);

}  // namespace tarn
