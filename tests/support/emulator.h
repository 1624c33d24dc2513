// Programs of a processor that is not this machine's.
#ifndef TESTS_SUPPORT_EMULATOR_H
#define TESTS_SUPPORT_EMULATOR_H

#include <string>
#include <vector>

namespace emulator {

// Executes the program at `arguments[0]`, which is looked up in PATH when it has no slash; one that this machine cannot
// execute in the emulator that the build was given, if any. Comes back, with errno set, only when that fails.
void execute(const std::vector<std::string> &arguments);

} // namespace emulator

#endif
