// Stands in the program in place of the C library's allocator. Operator new and SQLite come here too.
#include "faults/failing-memory.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using failing_memory::Plan;

Plan *plan = nullptr;
pid_t self = 0;

// The program's own start comes first: what it allocates until then is not counted.
__attribute__((constructor)) void mapPlan() {
    const char *path = std::getenv(failing_memory::kPlanVariable);
    const int fd = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
    void *const mapped = fd < 0 ? MAP_FAILED : ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (mapped == MAP_FAILED)
        std::abort();
    self = ::getpid();
    plan = static_cast<Plan *>(mapped);
}

bool fails() {
    if (plan == nullptr || (plan->process != self && plan->process != -1))
        return false;
    const std::uint32_t number = ++plan->made;
    if (plan->first == 0 || number < plan->first || number > plan->last)
        return false;
    ++plan->failed;
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the C library gives the names.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void *malloc(size_t size) { return fails() ? nullptr : __libc_malloc(size); }
EXPORTED void *calloc(size_t count, size_t size) { return fails() ? nullptr : __libc_calloc(count, size); }
EXPORTED void *realloc(void *memory, size_t size) { return fails() ? nullptr : __libc_realloc(memory, size); }
EXPORTED void *memalign(size_t alignment, size_t size) { return fails() ? nullptr : __libc_memalign(alignment, size); }
EXPORTED void *aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
EXPORTED int posix_memalign(void **memory, size_t alignment, size_t size) {
    *memory = memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}
}
