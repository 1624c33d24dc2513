// The memory that a test program asks for.
#ifndef TESTS_UNIT_LARGEST_ALLOCATION_H
#define TESTS_UNIT_LARGEST_ALLOCATION_H

#include <cstddef>

// The most bytes that one `new` asked for since a test last set it to 0.
extern std::size_t largestAllocation;

#endif
