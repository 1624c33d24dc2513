#include "probe.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace conformance {
namespace {

constexpr const char *kVariable = "NYR_CONFORMANCE_PROBE";
constexpr const char *kDeadlineVariable = "NYR_CONFORMANCE_DEADLINE";
constexpr int kDeadlineSeconds = 20;

std::string theFolder;

std::chrono::seconds deadline() {
    const char *other = std::getenv(kDeadlineVariable);
    return std::chrono::seconds(other != nullptr ? std::strtol(other, nullptr, 10) : kDeadlineSeconds);
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

} // namespace

std::vector<std::string> ask(const std::string &word) {
    const char *probe = std::getenv(kVariable);
    const std::string command = (probe != nullptr ? std::string(probe) : "false") + " " + word;
    std::string text;
    std::FILE *const stream = ::popen(command.c_str(), "re"); // NOLINT(cert-env33-c): the maker's own command
    if (stream != nullptr) {
        for (int byte = std::fgetc(stream); byte != EOF; byte = std::fgetc(stream))
            text.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(0, stream != nullptr ? ::pclose(stream) : -1) << command << " failed: " << text;
    std::vector<std::string> lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);)
        lines.push_back(line);
    return lines;
}

bool waitUntil(const std::function<bool()> &holds) {
    const auto end = std::chrono::steady_clock::now() + deadline();
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::poll(nullptr, 0, 5);
    }
    return true;
}

int inChild(const std::function<int()> &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        int result = 100;
        try {
            result = body();
        } catch (...) { // NOLINT(bugprone-empty-catch): told by the exit status
        }
        ::_exit(result);
    }
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return exitStatus(status);
}

void WithServices::SetUp() {
    if (std::getenv(kVariable) == nullptr)
        GTEST_SKIP() << "what the platform did is seen through " << kVariable << ", which is not set";
    ask("start");
    started_ = true;
}

void WithServices::TearDown() {
    if (started_)
        ask("stop");
}

std::vector<std::string> WithServices::linesOf(const std::string &word, std::size_t count) {
    std::vector<std::string> lines;
    waitUntil([&] { return (lines = ask(word)).size() >= count || testing::Test::HasFailure(); });
    return lines;
}

void WithFolder::SetUp() {
    theFolder = (std::filesystem::temp_directory_path() / "conformance-XXXXXX").string();
    ASSERT_NE(nullptr, ::mkdtemp(theFolder.data()));
}

void WithFolder::TearDown() { std::filesystem::remove_all(theFolder); }

const std::string &folder() { return theFolder; }

} // namespace conformance
