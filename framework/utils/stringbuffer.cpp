#include "framework/utils/stringbuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "framework/utils/stringutils.h"

namespace tarn {
namespace {

constexpr std::int32_t kDefaultCapacity = 10000;
constexpr std::int32_t kDefaultIncrement = 1000;

// Capacity that holds needed characters, grown from capacity in whole
// increments (at least one); -1 when no 32-bit capacity can.
std::int64_t GrownCapacity(std::int64_t capacity, std::int64_t increment, std::int64_t needed) {
  const std::int64_t step = std::max<std::int64_t>(increment, 1);
  const std::int64_t steps = std::max<std::int64_t>(1, (needed - capacity + step - 1) / step);
  const std::int64_t grown = capacity + steps * step;
  return grown > std::numeric_limits<std::int32_t>::max() - 1 ? -1 : grown;
}

}  // namespace

StringBuffer::StringBuffer() { InitStringBufferDefault(*this); }

int InitStringBufferDefault(StringBuffer& buffer) {
  return InitStringBuffer(buffer, kDefaultCapacity, kDefaultIncrement);
}

int InitStringBuffer(StringBuffer& buffer, std::int32_t capacity, std::int32_t increment) {
  capacity = std::max<std::int32_t>(capacity, 0);
  try {
    buffer.data_ = std::make_unique<char[]>(static_cast<std::size_t>(capacity) + 1);
  } catch (const std::bad_alloc&) {
    return kAllocOutOfMemory;
  }
  buffer.length_ = 0;
  buffer.capacity_ = capacity;
  buffer.increment_ = std::max<std::int32_t>(increment, 0);
  return kAllocSuccess;
}

int Append(StringBuffer& buffer, std::string_view text) {
  const std::int64_t needed = static_cast<std::int64_t>(buffer.length_) + text.size();
  if (needed > buffer.capacity_) {
    const std::int64_t grown = GrownCapacity(buffer.capacity_, buffer.increment_, needed);
    if (grown < 0) {
      return kAllocOutOfMemory;
    }
    std::unique_ptr<char[]> larger;
    try {
      larger = std::make_unique<char[]>(static_cast<std::size_t>(grown) + 1);
    } catch (const std::bad_alloc&) {
      return kAllocOutOfMemory;
    }
    std::memcpy(larger.get(), buffer.data_.get(), buffer.length_);
    buffer.data_ = std::move(larger);
    buffer.capacity_ = static_cast<std::int32_t>(grown);
  }
  if (!text.empty()) {
    std::memcpy(buffer.data_.get() + buffer.length_, text.data(), text.size());
  }
  buffer.length_ = static_cast<std::uint32_t>(needed);
  return kAllocSuccess;
}

}  // namespace tarn
