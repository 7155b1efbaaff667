// The time of day as the run reads it: the scan times it sends and stores, the names of the
// documents a local run writes. A seam of its own so that a test can fix the time.
#pragma once

#include <ctime>

namespace tarn {

class Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since 1970-01-01 UTC.
  virtual std::time_t Now() const = 0;
};

// The operating system's clock.
class SystemClock final : public Clock {
 public:
  std::time_t Now() const override { return std::time(nullptr); }
};

}  // namespace tarn
