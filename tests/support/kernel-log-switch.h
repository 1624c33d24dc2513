// A test that needs the machine's switch net.netfilter.nf_log_all_netns to stay on, though other programs may set it.
#ifndef TESTS_SUPPORT_KERNEL_LOG_SWITCH_H
#define TESTS_SUPPORT_KERNEL_LOG_SWITCH_H

#include <functional>
#include <string>

namespace kernellog {

constexpr const char *kSwitch = "/proc/sys/net/netfilter/nf_log_all_netns";

// Runs `test` with 1 in the file `switchFile`, and returns its exit status. Where it failed and somebody else had
// changed the file meanwhile, it says so, puts the 1 back and runs the test again, `attempts` times in all. A failure
// that nobody else can be blamed for is never run again.
int runUndisturbed(const std::string &switchFile, const std::function<int()> &test, int attempts = 3);

} // namespace kernellog

#endif
