// What the C library keeps of the memory that was freed.
#ifndef PLATFORM_RLV_SERVICE_FREED_MEMORY_H
#define PLATFORM_RLV_SERVICE_FREED_MEMORY_H

namespace rlv {

// Gives it back to the system; docs/decisions/freed-memory.md has what that is worth. Does nothing where the C library
// has no way to.
void returnFreedMemory();

} // namespace rlv

#endif
