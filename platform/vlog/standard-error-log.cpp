#include "vlog/sink.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/stat.h>
#include <system_error>

#include "support/unique-fd.h"
#include "vlog/line.h"

namespace vlog {
namespace {

// Keeps a pipe without a reader from ending the program: a log line is not worth that.
class PipeSignalHeld {
public:
    PipeSignalHeld() {
        sigset_t pending;
        ::sigpending(&pending);
        wasPending_ = ::sigismember(&pending, SIGPIPE) == 1;
        ::sigemptyset(&pipe_);
        ::sigaddset(&pipe_, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    PipeSignalHeld(const PipeSignalHeld &) = delete;
    PipeSignalHeld &operator=(const PipeSignalHeld &) = delete;
    ~PipeSignalHeld() {
        const std::timespec noWait{};
        if (!wasPending_)
            ::sigtimedwait(&pipe_, nullptr, &noWait);
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    sigset_t pipe_{};
    sigset_t before_{};
    bool wasPending_ = false;
};

class StandardErrorLog : public Sink {
public:
    StandardErrorLog() : fd_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        struct stat status {};
        if (!fd_ || ::fstat(fd_.get(), &status) != 0)
            throw std::system_error(errno, std::generic_category(), "standard error");
        canBreak_ = S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode);
    }

    bool write(int priority, const std::string &text) override {
        writer_.make(priority, text);
        if (!canBreak_)
            return writer_.write(fd_.get());
        const PipeSignalHeld held;
        return writer_.write(fd_.get());
    }

private:
    support::UniqueFd fd_;
    bool canBreak_ = false;
    LineWriter writer_;
};

} // namespace

std::unique_ptr<Sink> openStandardError() { return std::make_unique<StandardErrorLog>(); }

} // namespace vlog
