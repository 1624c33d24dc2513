// Private namespaces for test programs.
#ifndef TESTS_SUPPORT_SANDBOX_H
#define TESTS_SUPPORT_SANDBOX_H

#include <functional>

namespace sandbox {

// Runs `body` in a child process in private mount, network and process-id namespaces, with an empty tmpfs over /opt,
// /run and /dev/shm and with the loopback device up, and returns its exit status (128 + n when signal n ended it).
// Whatever the body started is dead when this returns. Without root it is done in a user namespace. Where the kernel
// refuses, prints a line that counts the test as skipped, with the reason, and returns 0.
int run(const std::function<int()> &body);

} // namespace sandbox

#endif
