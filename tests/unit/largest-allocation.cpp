// Stands apart from the tests, because the static analyser takes every allocation that it can look into for a leak.
#include "unit/largest-allocation.h"

#include <algorithm>
#include <cstdlib>
#include <new>

std::size_t largestAllocation = 0;

void *operator new(std::size_t size) {
    largestAllocation = std::max(largestAllocation, size);
    if (void *const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept { std::free(memory); }

void operator delete(void *memory, std::size_t /*unused*/) noexcept { std::free(memory); }
