// An owned block of bytes that always ends with one extra zero byte, so every
// stored value can also be read as NUL-terminated text. This is the storage
// form of store values: integers, floats, texts and date/time records alike.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

namespace tarn {

class OwnedBlock {
 public:
  OwnedBlock() : bytes_(1, 0) {}

  // A block holding a copy of size bytes of source, then a zero byte.
  static OwnedBlock Copy(const void* source, std::size_t size) {
    OwnedBlock block;
    block.bytes_.assign(size + 1, 0);
    if (size != 0) {
      std::memcpy(block.bytes_.data(), source, size);
    }
    return block;
  }

  // A block holding the object representation of a trivially copyable value.
  template <typename T>
  static OwnedBlock Of(const T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    return Copy(&value, sizeof(T));
  }

  // Reads the first sizeof(T) bytes as a T; a shorter block reads as if
  // padded with zero bytes.
  template <typename T>
  T Read() const {
    static_assert(std::is_trivially_copyable_v<T>);
    unsigned char raw[sizeof(T)] = {};
    std::memcpy(raw, bytes_.data(), std::min(sizeof(T), bytes_.size()));
    T value;
    std::memcpy(&value, raw, sizeof(T));
    return value;
  }

  std::size_t size() const { return bytes_.size() - 1; }
  const unsigned char* data() const { return bytes_.data(); }
  const char* c_str() const { return reinterpret_cast<const char*>(bytes_.data()); }

  friend bool operator==(const OwnedBlock&, const OwnedBlock&) = default;

 private:
  std::vector<unsigned char> bytes_;
};

}  // namespace tarn
