#include "rlv/service/freed-memory.h"

#include <cstdlib> // defines __GLIBC__

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace rlv {

void returnFreedMemory() {
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

} // namespace rlv
