// Private namespaces for test programs.
#ifndef TESTS_SUPPORT_SANDBOX_H
#define TESTS_SUPPORT_SANDBOX_H

#include <functional>

namespace sandbox {

// Runs `body` in a child process in private mount, network and process-id namespaces, with an empty tmpfs over /opt,
// /run and /dev/shm and with the loopback device up, and returns its exit status (128 + n when signal n ended it).
// Whatever the body started is dead when this returns, and what it wrote there is gone, however either of them ended.
// `afterwards`, where given, is called inside with that status when all else in there is dead, and says what to return
// instead. Without root it is done in a user namespace. Where the kernel refuses, prints a line that counts the test as
// skipped, with the reason, and returns 0.
int run(const std::function<int()> &body, const std::function<int(int)> &afterwards = nullptr);

} // namespace sandbox

#endif
