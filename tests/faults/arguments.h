// What the harness's programs share: their command lines, and how they tell what came of it all.
#ifndef TESTS_FAULTS_ARGUMENTS_H
#define TESTS_FAULTS_ARGUMENTS_H

#include <functional>
#include <string>
#include <vector>

#include "faults/workers.h"

namespace faults {

// "--name" and "--name VALUE" words. Its functions throw std::invalid_argument for what cannot be understood.
class Arguments {
public:
    Arguments(int argc, char **argv) : words_(argv + 1, argv + argc) {}

    bool has(const std::string &name) const;
    long number(const std::string &name, long usual) const;
    std::vector<std::string> all(const std::string &name) const;

private:
    std::vector<std::string> words_;
};

// Prints counts by class, and each violation by its name, the first ones of a class whole. The exit status: 0 when
// everything that was tried held; 1 otherwise, or when nothing was tried; 0 with a line that counts as skipped where
// there were no results at all.
int report(const char *harness, const std::vector<Result> &results,
           const std::function<std::string(std::size_t)> &nameOfPoint, bool all);

} // namespace faults

#endif
