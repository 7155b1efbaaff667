#include "tarninventory/src/tarninventory.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

int main(int argc, const char** argv) {
#if defined(__GLIBC__)
  // A scan allocates a few large buffers in turn (a report, the upload document, the
  // snapshot text). Kept in the heap instead of separate mappings that are returned at once,
  // the memory one buffer frees is reused by the next rather than faulted in afresh.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
#endif
  return tarn::RunInventoryScan(argc, argv);
}
