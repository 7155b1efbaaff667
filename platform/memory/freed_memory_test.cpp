#include "platform/memory/freed_memory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

namespace tarn {
namespace {

// glibc's allocator only: other allocators (and the sanitizers' own) keep freed pages their way.
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)

// Resident pages of this process.
long ResidentPages() {
  long size = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident;
}

// Memory freed in the middle of the heap (a live block above it keeps it from being trimmed
// at the top) stays resident until it is given back.
TEST(FreedMemory, FreedPagesInTheMiddleOfTheHeapGoBack) {
  constexpr std::size_t kBlocks = 32 * 1024;  // 32 MiB in 1 KiB blocks
  std::vector<std::unique_ptr<char[]>> blocks;
  // make_unique zeroes each block, so every page is touched.
  for (std::size_t i = 0; i < kBlocks; ++i) blocks.push_back(std::make_unique<char[]>(1024));
  const auto keep = std::make_unique<char[]>(1024);  // above the freed blocks
  blocks.clear();
  const long before = ResidentPages();
  ReturnFreedMemory();
  const long after = ResidentPages();
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  EXPECT_GT((before - after) * pageSize, 16L * 1024 * 1024) << before << " -> " << after;
}

#endif

}  // namespace
}  // namespace tarn
