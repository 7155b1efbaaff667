#include "framework/system/rsrclockimpl.h"

#include <chrono>
#include <limits>
#include <mutex>
#include <thread>
#include <unordered_set>

namespace tarn {
namespace {

struct ResourceLockTable {
  std::mutex mutex;
  std::unordered_set<const void*> held;
  std::uint64_t waitDelay = 0;
};

ResourceLockTable& Table() {
  static ResourceLockTable table;
  return table;
}

}  // namespace

int InitMutex() { return 1; }

int HandleResource(const void* key, int operation) {
  ResourceLockTable& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  switch (operation) {
    case kResourceTake:
      try {
        return table.held.insert(key).second ? kResourceTaken : kResourceBusy;
      } catch (const std::bad_alloc&) {
        return kResourceBusy;
      }
    case kResourceGiveBack:
      return table.held.erase(key) != 0 ? kResourceReleased : kResourceBusy;
    case kResourceClean:
      return 1;
    default:
      return kResourceBusy;
  }
}

std::uint64_t NextResourceWaitDelay() {
  ResourceLockTable& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  constexpr std::uint64_t kStep = 10;
  if (table.waitDelay > std::numeric_limits<std::uint64_t>::max() - kStep - 9) {
    table.waitDelay = 0;
  }
  table.waitDelay += kStep;
  return table.waitDelay;
}

void SynchronizeResource(const void* key) {
  while (HandleResource(key, kResourceTake) == kResourceBusy) {
    // The delay is handed to the sleep as a 32-bit count of microseconds.
    const auto micros = static_cast<std::uint32_t>(NextResourceWaitDelay());
    std::this_thread::sleep_for(std::chrono::microseconds(micros));
  }
}

void UnsynchronizeResource(const void* key) { HandleResource(key, kResourceGiveBack); }

int InitResourceLockTable() {
  ResourceLockTable& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  table.held.clear();
  return 1;
}

int FinalizeResourceLockTable() { return HandleResource(nullptr, kResourceClean); }

}  // namespace tarn
