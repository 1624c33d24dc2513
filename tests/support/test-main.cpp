// The main function of every test program: runs the tests in namespaces of their own, and fails when a sanitizer had
// something to say in any process that they started, whatever its exit status and whichever descriptors it had closed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/kernel-log-switch.h"
#include "support/sandbox.h"

namespace {

constexpr const char *kInside = "NYR_TEST_INSIDE";

// On the tmpfs of the namespaces, so that nothing of them is left even when the test is killed.
const std::string kReports = "/run/test/sanitizers";
const std::string kTemporary = "/run/test/tmp";

// An exit status that no test program has.
constexpr int kReported = 99;

void appendOption(const char *variable, const std::string &option) {
    const char *old = std::getenv(variable);
    ::setenv(variable, (old != nullptr ? std::string(old) + ":" + option : option).c_str(), 1);
}

bool onlyLists(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--gtest_list_tests", 18) == 0)
            return true;
    }
    return false;
}

// Prints the reports. True when there were any.
bool sanitizersReported() {
    bool any = false;
    for (const auto &entry : std::filesystem::directory_iterator(kReports)) {
        any = true;
        std::ifstream report(entry.path());
        std::fprintf(stderr, "sanitizer report %s:\n%s\n", entry.path().filename().c_str(),
                     std::string(std::istreambuf_iterator<char>(report), {}).c_str());
    }
    return any;
}

// True for a test that needs the kernel's log, in a run that has the switch for it.
bool kernelLogIsHeld() {
    const char *const stateFile = std::getenv("NYR_KERNEL_LOG_STATE");
    std::string state;
    return stateFile != nullptr && std::getline(std::ifstream(stateFile), state) && state == "1";
}

// Programs of any account write there.
void makeFolders() {
    for (const std::string &folder : {kReports, kTemporary}) {
        std::filesystem::create_directories(folder);
        std::filesystem::permissions(folder, std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
    }
}

// Sanitizers read their options when a program starts, hence the exec.
int executeWithReports(const std::vector<std::string> &arguments) {
    makeFolders();
    appendOption("ASAN_OPTIONS", "log_path=" + kReports + "/asan");
    appendOption("UBSAN_OPTIONS", "print_stacktrace=1:log_path=" + kReports + "/ubsan");
    ::setenv("TMPDIR", kTemporary.c_str(), 1);
    ::setenv(kInside, "1", 1);
    emulator::execute(arguments);
    std::perror(arguments[0].c_str());
    return 127;
}

int runInSandbox(int argc, char **argv) {
    // By its path, because libraries are looked for beside the program, and what /proc/self/exe names inside is a file
    // of the mounts outside.
    std::vector<std::string> arguments(argv, argv + argc);
    arguments[0] = std::filesystem::read_symlink("/proc/self/exe").string();
    bool reported = false;
    const auto run = [&] {
        const int status = sandbox::run([&] { return executeWithReports(arguments); },
                                        [](int ended) { return sanitizersReported() ? kReported : ended; });
        reported = reported || status == kReported;
        return status;
    };
    const int status = kernelLogIsHeld() ? kernellog::runUndisturbed(kernellog::kSwitch, run) : run();
    return reported ? 1 : status;
}

} // namespace

int main(int argc, char **argv) {
    if (std::getenv(kInside) == nullptr && !onlyLists(argc, argv))
        return runInSandbox(argc, argv);
    ::unsetenv(kInside);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
