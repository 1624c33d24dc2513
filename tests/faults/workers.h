// Spreads the points of a harness over processes, each in namespaces of its own, and gathers what came of them.
#ifndef TESTS_FAULTS_WORKERS_H
#define TESTS_FAULTS_WORKERS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace faults {

enum class Class : int { notRun, held, violated, notReached, broken };

struct Result {
    Class outcome = Class::notRun;
    std::string kind; // of the violation, or what else is to be counted together
    std::string text;
};

struct Workers {
    unsigned count = 2;
    double secondsAtMost = 0; // no point is begun later; 0: all are
};

// Runs `each(index)` for the indices below `points`. `prepare` is called once in each worker. What escapes from a
// worker as an exception is `broken`; a worker that dies leaves its point `broken`. No results at all: no namespaces
// can be had here, which was said.
std::vector<Result> runSpread(std::size_t points, const Workers &workers, const std::function<void()> &prepare,
                              const std::function<Result(std::size_t)> &each);

} // namespace faults

#endif
