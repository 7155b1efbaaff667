// A growable text buffer that grows by a fixed increment (not geometrically):
// its capacity after each Append is part of the observable behaviour.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace tarn {

class StringBuffer {
 public:
  // Length 0, capacity 10000, increment 1000.
  StringBuffer();

  std::uint32_t length() const { return length_; }
  std::int32_t capacity() const { return capacity_; }
  std::int32_t increment() const { return increment_; }
  // NUL-terminated contents; the rest of the allocation is zero-filled.
  const char* data() const { return data_.get(); }
  std::string_view view() const { return {data_.get(), length_}; }

  friend int InitStringBufferDefault(StringBuffer& buffer);
  friend int InitStringBuffer(StringBuffer& buffer, std::int32_t capacity, std::int32_t increment);
  friend int Append(StringBuffer& buffer, std::string_view text);

 private:
  std::uint32_t length_ = 0;
  std::unique_ptr<char[]> data_;
  std::int32_t capacity_ = 0;
  std::int32_t increment_ = 0;
};

// Empties the buffer with capacity 10000 and increment 1000. Returns 1, or 99
// when out of memory.
int InitStringBufferDefault(StringBuffer& buffer);

// Empties the buffer with the given capacity and increment (negative values
// count as 0). Returns 1, or 99 when out of memory.
int InitStringBuffer(StringBuffer& buffer, std::int32_t capacity, std::int32_t increment);

// Appends text. When it does not fit, the capacity grows to capacity +
// k * increment for the smallest k >= 1 that holds the whole text. Returns 1,
// or 99 when out of memory or the capacity would pass the 32-bit range (the
// buffer is then unchanged).
int Append(StringBuffer& buffer, std::string_view text);

}  // namespace tarn
