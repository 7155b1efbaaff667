#include "framework/utils/hashtable.h"

namespace tarn {

std::int32_t FindIndex(std::string_view key, std::int32_t bucketCount) {
  if (bucketCount <= 0) {
    return 0;
  }
  // |h| stays below bucketCount, so 26 * h + c cannot leave 64 bits; the
  // remainder is the one 32-bit arithmetic gives wherever that does not overflow.
  std::int64_t h = 0;
  for (const char byte : key) {
    const auto c = static_cast<std::int8_t>(byte);
    h = (c + 26 * h) % bucketCount;
  }
  return static_cast<std::int32_t>(h < 0 ? h + bucketCount : h);
}

}  // namespace tarn
