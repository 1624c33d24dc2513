// What each system call can be refused with: from the manual pages, and as a full disk, a bad block, a lack of memory
// or descriptors, or a signal give it.
#include "faults/tracer.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <sys/syscall.h>

namespace faults {
namespace {

constexpr int kOpen[] = {EMFILE, EIO, ENOSPC, ENOMEM, 0};
constexpr int kMake[] = {EMFILE, ENOMEM, 0};
constexpr int kPath[] = {EIO, ENOMEM, 0};
constexpr int kNewName[] = {EIO, ENOSPC, 0};
constexpr int kReadFile[] = {EIO, EINTR, 0};
constexpr int kWriteFile[] = {ENOSPC, EIO, EINTR, 0};
constexpr int kTransfer[] = {EAGAIN, EINTR, ENOMEM, 0};
constexpr int kSync[] = {EIO, ENOSPC, 0};
constexpr int kCut[] = {EIO, EINTR, 0};
constexpr int kLock[] = {EAGAIN, EINTR, EMFILE, 0};
constexpr int kWait[] = {EINTR, ENOMEM, 0};
constexpr int kMemory[] = {ENOMEM, 0};
constexpr int kFork[] = {EAGAIN, ENOMEM, 0};
constexpr int kConnect[] = {EAGAIN, EINTR, ENOMEM, 0};
constexpr int kClose[] = {EIO, EINTR, 0};

constexpr Failures kAll[] = {
#ifdef SYS_open
    {SYS_open, "open", kOpen, kOpen},
    {SYS_stat, "stat", kPath, kPath},
    {SYS_lstat, "lstat", kPath, kPath},
    {SYS_access, "access", kPath, kPath},
    {SYS_unlink, "unlink", kPath, kPath},
    {SYS_rename, "rename", kNewName, kNewName},
    {SYS_mkdir, "mkdir", kNewName, kNewName},
    {SYS_chmod, "chmod", kPath, kPath},
    {SYS_readlink, "readlink", kPath, kPath},
    {SYS_poll, "poll", kWait, kWait},
    {SYS_epoll_wait, "epoll_wait", kWait, kWait},
    {SYS_fork, "fork", kFork, kFork},
#endif
    {SYS_openat, "openat", kOpen, kOpen},
    {SYS_newfstatat, "newfstatat", kPath, kPath},
    {SYS_fstat, "fstat", kPath, kPath},
    {SYS_statx, "statx", kPath, kPath},
    {SYS_faccessat, "faccessat", kPath, kPath},
    {SYS_faccessat2, "faccessat2", kPath, kPath},
    {SYS_unlinkat, "unlinkat", kPath, kPath},
    {SYS_renameat, "renameat", kNewName, kNewName},
    {SYS_renameat2, "renameat2", kNewName, kNewName},
    {SYS_mkdirat, "mkdirat", kNewName, kNewName},
    {SYS_fchmod, "fchmod", kPath, kPath},
    {SYS_fchmodat, "fchmodat", kPath, kPath},
    {SYS_fchown, "fchown", kPath, kPath},
    {SYS_readlinkat, "readlinkat", kPath, kPath},
    {SYS_utimensat, "utimensat", kPath, kPath},
    {SYS_getdents64, "getdents64", kPath, kPath},
    {SYS_linkat, "linkat", kNewName, kNewName},
    {SYS_read, "read", kReadFile, kTransfer},
    {SYS_pread64, "pread64", kReadFile, kReadFile},
    {SYS_readv, "readv", kReadFile, kTransfer},
    {SYS_write, "write", kWriteFile, kTransfer},
    {SYS_pwrite64, "pwrite64", kWriteFile, kWriteFile},
    {SYS_writev, "writev", kWriteFile, kTransfer},
    {SYS_copy_file_range, "copy_file_range", kWriteFile, kWriteFile},
    {SYS_sendfile, "sendfile", kWriteFile, kWriteFile},
    {SYS_fsync, "fsync", kSync, kSync},
    {SYS_fdatasync, "fdatasync", kSync, kSync},
    {SYS_ftruncate, "ftruncate", kCut, kCut},
    {SYS_fallocate, "fallocate", kWriteFile, kWriteFile},
    {SYS_fcntl, "fcntl", kLock, kLock},
    {SYS_flock, "flock", kLock, kLock},
    {SYS_dup, "dup", kMake, kMake},
    {SYS_close, "close", kClose, kClose},
    {SYS_mmap, "mmap", kMemory, kMemory},
    {SYS_mremap, "mremap", kMemory, kMemory},
    {SYS_socket, "socket", kMake, kMake},
    {SYS_connect, "connect", kConnect, kConnect},
    {SYS_accept4, "accept4", kMake, kMake},
    {SYS_bind, "bind", kMemory, kMemory},
    {SYS_sendto, "sendto", kTransfer, kTransfer},
    {SYS_sendmsg, "sendmsg", kTransfer, kTransfer},
    {SYS_recvfrom, "recvfrom", kTransfer, kTransfer},
    {SYS_recvmsg, "recvmsg", kTransfer, kTransfer},
    {SYS_getsockopt, "getsockopt", kMemory, kMemory},
    {SYS_setsockopt, "setsockopt", kMemory, kMemory},
    {SYS_ppoll, "ppoll", kWait, kWait},
    {SYS_epoll_pwait, "epoll_pwait", kWait, kWait},
    {SYS_epoll_ctl, "epoll_ctl", kMemory, kMemory},
    {SYS_epoll_create1, "epoll_create1", kMake, kMake},
    {SYS_timerfd_create, "timerfd_create", kMake, kMake},
    {SYS_signalfd4, "signalfd4", kMake, kMake},
    {SYS_eventfd2, "eventfd2", kMake, kMake},
    {SYS_pipe2, "pipe2", kMake, kMake},
    {SYS_memfd_create, "memfd_create", kMake, kMake},
    {SYS_clone, "clone", kFork, kFork},
};

struct NamedError {
    int number;
    const char *name;
};
constexpr NamedError kErrors[] = {{EIO, "EIO"},       {ENOSPC, "ENOSPC"}, {ENOMEM, "ENOMEM"},
                                  {EMFILE, "EMFILE"}, {EINTR, "EINTR"},   {EAGAIN, "EAGAIN"}};
constexpr const char *kUnnamed = "call ";

} // namespace

const Failures *failuresOf(long number) {
    const auto *const found = std::find_if(std::begin(kAll), std::end(kAll),
                                           [number](const Failures &each) { return each.number == number; });
    return found != std::end(kAll) ? found : nullptr;
}

std::string nameOfCall(long number) {
    const Failures *known = failuresOf(number);
    return known != nullptr ? known->name : kUnnamed + std::to_string(number);
}

long numberOfCall(const std::string &name) {
    const auto *const found =
        std::find_if(std::begin(kAll), std::end(kAll), [&name](const Failures &each) { return name == each.name; });
    if (found != std::end(kAll))
        return found->number;
    if (name.rfind(kUnnamed, 0) != 0)
        throw std::invalid_argument("no system call " + name);
    return std::stol(name.substr(std::string(kUnnamed).size()));
}

std::string nameOfError(int error) {
    const auto *const found = std::find_if(std::begin(kErrors), std::end(kErrors),
                                           [error](const NamedError &each) { return each.number == error; });
    return found != std::end(kErrors) ? found->name : std::to_string(error);
}

int numberOfError(const std::string &name) {
    const auto *const found = std::find_if(std::begin(kErrors), std::end(kErrors),
                                           [&name](const NamedError &each) { return name == each.name; });
    if (found == std::end(kErrors))
        throw std::invalid_argument("no error " + name);
    return found->number;
}

} // namespace faults
