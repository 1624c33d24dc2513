#include "host/shortage.h"

#include <atomic>
#include <new>

namespace host {

namespace {

std::atomic<std::uint64_t> count{0};

} // namespace

void countShortages() noexcept {
    std::set_new_handler([] {
        ++count;
        throw std::bad_alloc();
    });
}

std::uint64_t shortages() noexcept { return count; }

} // namespace host
