#include "faults/tracer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string_view>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/user.h>
#include <sys/wait.h>

#include "faults/children.h"

namespace faults {
namespace {

constexpr int kCallStop = SIGTRAP | 0x80; // PTRACE_O_TRACESYSGOOD
constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;

long request(int what, pid_t process, unsigned long address, unsigned long data) {
    return ::ptrace(static_cast<__ptrace_request>(what), process, address, data);
}

Operand operandOf(pid_t process, unsigned long long descriptor) {
    if (descriptor > 4096)
        return Operand::none;
    struct stat status {};
    const std::string link = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(descriptor);
    if (::stat(link.c_str(), &status) != 0)
        return Operand::none;
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))
        return Operand::file;
    return S_ISSOCK(status.st_mode) ? Operand::socket : Operand::other;
}

#ifdef __x86_64__
constexpr bool kSupported = true;
constexpr unsigned long kNumber = offsetof(user_regs_struct, orig_rax);
constexpr unsigned long kResult = offsetof(user_regs_struct, rax);

void skipCall(pid_t process) { request(PTRACE_POKEUSER, process, kNumber, static_cast<unsigned long>(-1)); }
void setResult(pid_t process, int error) {
    request(PTRACE_POKEUSER, process, kResult, static_cast<unsigned long>(-static_cast<long>(error)));
}
#else
constexpr bool kSupported = false;
void skipCall(pid_t) {}
void setResult(pid_t, int) {}
#endif

} // namespace

bool canTrace() { return kSupported; }

Tracer::Tracer() {
    children::onStop([this](pid_t process, int status) { stopped(process, status); });
}

Tracer::~Tracer() {
    detach();
    children::onStop({});
}

void Tracer::attach(pid_t process, Decide decide) {
    if (request(PTRACE_SEIZE, process, 0, kOptions) != 0)
        return;
    process_ = process;
    decide_ = std::move(decide);
    pending_ = {};
    leaving_ = false;
    starting_ = true;
    request(PTRACE_INTERRUPT, process, 0, 0);
    children::waitUntil([this] { return !starting_ || !children::runs(process_); }, children::Clock::time_point::max());
}

void Tracer::follow(pid_t child, Decide decide) {
    process_ = child;
    decide_ = std::move(decide);
    pending_ = {};
    leaving_ = false;
    starting_ = true;
    children::waitUntil([this] { return !starting_ || !children::runs(process_); }, children::Clock::time_point::max());
}

void Tracer::detach() {
    if (process_ <= 0)
        return;
    leaving_ = true;
    // One that was not seized stops at its next call or signal.
    if (request(PTRACE_INTERRUPT, process_, 0, 0) != 0)
        ::kill(process_, SIGCONT);
    children::waitUntil([this] { return process_ <= 0 || !children::runs(process_) || ::kill(process_, 0) != 0; },
                        children::Clock::time_point::max());
    process_ = -1;
}

void Tracer::resume(int signal) {
    if (leaving_) {
        request(PTRACE_DETACH, process_, 0, static_cast<unsigned long>(signal == SIGCONT ? 0 : signal));
        process_ = -1;
        return;
    }
    request(PTRACE_SYSCALL, process_, 0, static_cast<unsigned long>(signal));
}

void Tracer::stopped(pid_t process, int status) {
    if (process != process_)
        return;
    const int signal = WSTOPSIG(status);
    if (starting_) {
        starting_ = false;
        request(PTRACE_SETOPTIONS, process, 0, kOptions);
        return resume();
    }
    if (signal == kCallStop)
        return atCall();
    // A stop of the tracing's own carries an event; what else comes is a signal for the process.
    resume((status >> 16) != 0 || signal == SIGTRAP ? 0 : signal);
}

void Tracer::atCall() {
    __ptrace_syscall_info info{};
    request(PTRACE_GET_SYSCALL_INFO, process_, sizeof info, reinterpret_cast<unsigned long>(&info));
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
        pending_ = {};
        if (!leaving_)
            enter(static_cast<long>(info.entry.nr), info.entry.args[0]);
    } else if (pending_.kind != Fate::made) {
        setResult(process_, pending_.error);
        pending_ = {};
    }
    // One whose call was taken away must get its result first.
    if (leaving_ && pending_.kind != Fate::made) {
        request(PTRACE_SYSCALL, process_, 0, 0);
        return;
    }
    resume();
}

void Tracer::enter(long number, unsigned long long firstArgument) {
    const Failures *known = failuresOf(number);
    const bool hasDescriptor = known != nullptr && known->ofFile != known->ofSocket;
    pending_ = decide_({number, hasDescriptor ? operandOf(process_, firstArgument) : Operand::none});
    if (pending_.kind == Fate::fails)
        skipCall(process_);
    if (pending_.kind == Fate::deadly) {
        pending_ = {};
        ::kill(process_, SIGKILL);
    }
}

} // namespace faults
