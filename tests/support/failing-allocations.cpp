#include "support/failing-allocations.h"

#include <cstdlib>
#include <new>

namespace {

constexpr int kUnlimited = -1;

thread_local int left = kUnlimited;
thread_local int failures = 0;

} // namespace

void *operator new(std::size_t size) {
    if (left == 0) {
        ++failures;
        if (const std::new_handler handler = std::get_new_handler())
            handler();
        throw std::bad_alloc();
    }
    left -= left > 0 ? 1 : 0;
    if (void *const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void *operator new(std::size_t size, const std::nothrow_t & /*unused*/) noexcept try {
    return operator new(size);
} catch (const std::bad_alloc &) {
    return nullptr;
}

void operator delete(void *memory) noexcept { std::free(memory); }

void operator delete(void *memory, std::size_t /*unused*/) noexcept { std::free(memory); }

namespace failing_allocations {

Shortage::Shortage(int spared) {
    failures = 0;
    left = spared;
}

Shortage::~Shortage() { left = kUnlimited; }

int Shortage::failed() { return failures; }

} // namespace failing_allocations
