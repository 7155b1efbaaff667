// Process-wide table of held resource locks. A lock is named by a key (any
// address-sized handle); a key is either held or free. The table itself is
// guarded by one process-wide mutex, held only for a single list operation.
#pragma once

#include <cstdint>

namespace tarn {

// Operations of HandleResource and their answers.
inline constexpr int kResourceTake = 1;
inline constexpr int kResourceGiveBack = 2;
inline constexpr int kResourceClean = 3;

inline constexpr int kResourceTaken = 1;
inline constexpr int kResourceBusy = 2;
inline constexpr int kResourceReleased = 4;

// Creates the table's mutex; kept for the start-up order of the agent (the
// mutex exists from process start). Returns 1.
int InitMutex();

// Performs one operation on the table under the mutex.
// Take: 1 when the key was free and is now held, 2 when it is already held.
// Give back: 4 when the key was held and is now free, 2 when it was not held.
// Clean: walks the table and answers 1; nothing is released.
int HandleResource(const void* key, int operation);

// Takes the lock named by key, polling with a growing delay while it is busy.
void SynchronizeResource(const void* key);

// Gives the lock named by key back (once).
void UnsynchronizeResource(const void* key);

// Empties the table. Returns 1.
int InitResourceLockTable();

// Runs the table's clean operation, which leaves the contents as they are. Returns 1.
int FinalizeResourceLockTable();

// The delay (in microseconds) SynchronizeResource sleeps before its next
// attempt: 10 more at every wait, restarting at 10 near the 64-bit limit.
std::uint64_t NextResourceWaitDelay();

// RAII holder: takes the lock on construction, gives it back on destruction.
class ResourceGuard {
 public:
  explicit ResourceGuard(const void* key) : key_(key) { SynchronizeResource(key_); }
  ~ResourceGuard() { UnsynchronizeResource(key_); }
  ResourceGuard(const ResourceGuard&) = delete;
  ResourceGuard& operator=(const ResourceGuard&) = delete;

 private:
  const void* key_;
};

}  // namespace tarn
