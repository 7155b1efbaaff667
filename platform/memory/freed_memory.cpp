#include "platform/memory/freed_memory.h"

#include <cstdlib>  // defines __GLIBC__ on glibc systems

#if defined(__GLIBC__)
#include <malloc.h>
#elif defined(__APPLE__)
#include <malloc/malloc.h>
#endif

namespace tarn {

void ReturnFreedMemory() {
#if defined(__GLIBC__)
  malloc_trim(0);
#elif defined(__APPLE__)
  malloc_zone_pressure_relief(nullptr, 0);
#endif
}

}  // namespace tarn
