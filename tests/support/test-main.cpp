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

// Prints the reports and removes the folder. True when there were any.
bool sanitizersReported(const std::string &folder) {
    bool any = false;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        any = true;
        std::ifstream report(entry.path());
        std::fprintf(stderr, "sanitizer report %s:\n%s\n", entry.path().filename().c_str(),
                     std::string(std::istreambuf_iterator<char>(report), {}).c_str());
    }
    std::filesystem::remove_all(folder);
    return any;
}

// True for a test that needs the kernel's log, in a run that has the switch for it.
bool kernelLogIsHeld() {
    const char *const stateFile = std::getenv("NYR_KERNEL_LOG_STATE");
    std::string state;
    return stateFile != nullptr && std::getline(std::ifstream(stateFile), state) && state == "1";
}

int runInSandbox(int argc, char **argv) {
    std::string folder = (std::filesystem::temp_directory_path() / "nyr-test-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    // Sanitizers read their options when a program starts, hence the exec. By its path, because libraries are looked
    // for beside the program, and what /proc/self/exe names inside is a file of the mounts outside.
    std::vector<std::string> arguments(argv, argv + argc);
    arguments[0] = std::filesystem::read_symlink("/proc/self/exe").string();
    appendOption("ASAN_OPTIONS", "log_path=" + folder + "/asan");
    appendOption("UBSAN_OPTIONS", "print_stacktrace=1:log_path=" + folder + "/ubsan");
    ::setenv(kInside, "1", 1);
    const auto run = [&arguments] {
        return sandbox::run([&arguments] {
            emulator::execute(arguments);
            std::perror(arguments[0].c_str());
            return 127;
        });
    };
    const int status = kernelLogIsHeld() ? kernellog::runUndisturbed(kernellog::kSwitch, run) : run();
    return sanitizersReported(folder) && status == 0 ? 1 : status;
}

} // namespace

int main(int argc, char **argv) {
    if (std::getenv(kInside) == nullptr && !onlyLists(argc, argv))
        return runInSandbox(argc, argv);
    ::unsetenv(kInside);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
