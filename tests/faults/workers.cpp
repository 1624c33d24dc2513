#include "faults/workers.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "support/sandbox.h"

namespace faults {
namespace {

using Clock = std::chrono::steady_clock;

// As it stands in memory that all workers share.
struct Slot {
    std::atomic<int> outcome;
    char kind[64];
    char text[700];
};

struct Shared {
    std::atomic<std::size_t> next;
    std::atomic<unsigned> entered;
};

template <typename Type> Type *share(std::size_t count) {
    void *const memory =
        ::mmap(nullptr, count * sizeof(Type), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
    return static_cast<Type *>(memory);
}

void keep(Slot &slot, const Result &result) {
    std::snprintf(slot.kind, sizeof slot.kind, "%s", result.kind.c_str());
    std::snprintf(slot.text, sizeof slot.text, "%s", result.text.c_str());
    slot.outcome = static_cast<int>(result.outcome);
}

Result carryOut(const std::function<Result(std::size_t)> &each, std::size_t index) try {
    return each(index);
} catch (const std::exception &error) {
    return {Class::broken, "harness", error.what()};
}

// Without it there is nothing to try: the points stay as they are, which is no success.
bool prepares(const std::function<void()> &prepare) try {
    prepare();
    return true;
} catch (const std::exception &error) {
    std::fprintf(stderr, "a worker cannot begin: %s\n", error.what());
    return false;
}

} // namespace

std::vector<Result> runSpread(std::size_t points, const Workers &workers, const std::function<void()> &prepare,
                              const std::function<Result(std::size_t)> &each) {
    auto *const slots = share<Slot>(points + 1);
    auto *const shared = share<Shared>(1);
    const auto end = Clock::now() +
                     std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(workers.secondsAtMost));
    const auto work = [&] {
        ++shared->entered;
        if (!prepares(prepare))
            return 1;
        for (std::size_t index = 0; (index = shared->next++) < points;) {
            if (workers.secondsAtMost > 0 && Clock::now() >= end)
                break;
            keep(slots[index], {Class::broken, "worker died", ""});
            keep(slots[index], carryOut(each, index));
        }
        return 0;
    };
    std::fflush(nullptr);
    std::vector<pid_t> started;
    for (unsigned i = 0; i < workers.count; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::_exit(sandbox::run(work));
        }
        started.push_back(child);
    }
    for (const pid_t child : started)
        ::waitpid(child, nullptr, 0);
    std::vector<Result> results;
    for (std::size_t i = 0; i < points && shared->entered > 0; ++i)
        results.push_back({static_cast<Class>(slots[i].outcome.load()), slots[i].kind, slots[i].text});
    ::munmap(slots, (points + 1) * sizeof(Slot));
    ::munmap(shared, sizeof(Shared));
    return results;
}

} // namespace faults
