#include "support/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "support/emulator.h"

namespace process {
namespace {

using Clock = std::chrono::steady_clock;
using support::UniqueFd;

constexpr Duration kAskAgain{2};
constexpr int kNotExecuted = 127;

UniqueFd require(UniqueFd fd, const std::string &what) {
    if (!fd)
        throw std::system_error(errno, std::generic_category(), what);
    return support::aboveStandardStreams(std::move(fd));
}

UniqueFd memoryFile(const char *name) { return require(UniqueFd(::memfd_create(name, MFD_CLOEXEC)), name); }

UniqueFd sinkFor(const std::string &path, const char *name) {
    if (path.empty())
        return memoryFile(name);
    return require(UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)), path);
}

UniqueFd sourceOf(const std::string &text) {
    UniqueFd source = memoryFile("input");
    if (::pwrite(source.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        throw std::system_error(errno, std::generic_category(), "input");
    return source;
}

std::string textOf(const UniqueFd &file) {
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::pread(file.get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0)
        text.append(buffer, static_cast<std::size_t>(count));
    return text;
}

bool become(uid_t user) {
    return ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0;
}

// In the forked child.
[[noreturn]] void execute(const std::vector<std::string> &arguments, const Options &options, const UniqueFd &input,
                          const UniqueFd &output, const UniqueFd &errors) {
    ::dup2(input.get(), STDIN_FILENO);
    ::dup2(output.get(), STDOUT_FILENO);
    ::dup2(errors.get(), STDERR_FILENO);
    for (const auto &setting : options.environment)
        ::putenv(const_cast<char *>(setting.c_str()));
    const bool there = options.directory.empty() || ::chdir(options.directory.c_str()) == 0;
    if (there && (!options.user || become(*options.user)))
        emulator::execute(arguments);
    ::dprintf(STDERR_FILENO, "%s: %m\n", arguments[0].c_str());
    ::_exit(kNotExecuted);
}

int milliseconds(Duration duration) { return static_cast<int>(std::max<Duration::rep>(duration.count(), 0)); }

} // namespace

Child::Child(const std::vector<std::string> &arguments, const Options &options)
    : output_(sinkFor(options.outputFile, "output")), errors_(sinkFor(options.errorFile, "errors")) {
    const UniqueFd input = sourceOf(options.input);
    id_ = ::fork();
    if (id_ == 0)
        execute(arguments, options, input, output_, errors_);
    if (id_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    ended_.reset(static_cast<int>(::syscall(SYS_pidfd_open, id_, 0)));
}

Child::Child(Child &&other) noexcept
    : id_(std::exchange(other.id_, -1)), status_(other.status_), ended_(std::move(other.ended_)),
      output_(std::move(other.output_)), errors_(std::move(other.errors_)) {}

Child::~Child() { kill(); }

void Child::keepStatus(int status) { status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

bool Child::running() { return id_ > 0 && !status_ && !wait(Duration(0)); }

bool Child::waitReady(const std::function<bool()> &ready, Duration deadline) {
    const auto end = Clock::now() + deadline;
    while (!ready()) {
        if (Clock::now() >= end || wait(kAskAgain))
            return false;
    }
    return true;
}

void Child::signal(int number) {
    if (running())
        ::kill(id_, number);
}

std::optional<int> Child::wait(Duration deadline) {
    if (status_ || id_ <= 0)
        return status_;
    pollfd ended{ended_.get(), POLLIN, 0};
    while (::poll(&ended, 1, milliseconds(deadline)) < 0 && errno == EINTR) {
    }
    int status = 0;
    if (::waitpid(id_, &status, WNOHANG) == id_)
        keepStatus(status);
    return status_;
}

std::optional<int> Child::terminate(Duration deadline) {
    signal(SIGTERM);
    const auto status = wait(deadline);
    kill();
    return status;
}

void Child::kill() {
    if (id_ <= 0 || status_)
        return;
    ::kill(id_, SIGKILL);
    int status = 0;
    while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
    }
    keepStatus(status);
}

std::string Child::output() const { return textOf(output_); }

std::string Child::errors() const { return textOf(errors_); }

Result capture(const std::vector<std::string> &arguments, const Options &options, Duration deadline) {
    Child child(arguments, options);
    auto status = child.wait(deadline);
    child.kill();
    return {status.value_or(128 + SIGKILL), child.output(), child.errors()};
}

bool waitUntil(const std::function<bool()> &holds, Duration deadline) {
    const auto end = Clock::now() + deadline;
    while (!holds()) {
        if (Clock::now() >= end)
            return false;
        ::poll(nullptr, 0, milliseconds(kAskAgain));
    }
    return true;
}

std::string copyForEveryone(const std::string &buildFolder, const std::string &program) {
    namespace fs = std::filesystem;
    const fs::path root = "/run/for-everyone";
    fs::create_directories(root / "bin");
    fs::create_directories(root / "lib");
    fs::copy_file(buildFolder + "/bin/" + program, root / "bin" / program, fs::copy_options::overwrite_existing);
    for (const auto &library : fs::directory_iterator(buildFolder + "/lib"))
        fs::copy_file(library.path(), root / "lib" / library.path().filename(), fs::copy_options::overwrite_existing);
    for (const auto &entry : fs::recursive_directory_iterator(root))
        fs::permissions(entry.path(), fs::perms(0755));
    fs::permissions(root, fs::perms(0755));
    return root / "bin" / program;
}

} // namespace process
