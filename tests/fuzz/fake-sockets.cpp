#include "fuzz/fake-sockets.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

#include "fuzz/require.h"

namespace fuzz {
namespace {

// Above every descriptor that is real.
constexpr int kListener = 1'000'000;
constexpr int kEpoll = kListener + 1;
constexpr int kFirstSocket = kListener + 2;

struct World {
    std::map<int, FakeSocket> sockets;
    std::deque<int> toBeAccepted;
    std::map<int, std::uint32_t> interests;
    std::function<void()> act;
    std::chrono::steady_clock::time_point now;
    int next = kFirstSocket;
};

World &world() {
    static World theWorld;
    return theWorld;
}

ssize_t failWith(int error) {
    errno = error;
    return -1;
}

std::uint32_t eventsOf(int fd) {
    if (fd == kListener)
        return world().toBeAccepted.empty() ? 0U : std::uint32_t{EPOLLIN};
    const FakeSocket &socket = socketAt(fd);
    const bool readable = socket.peerLeft || socket.peerSaysNoMore || !socket.incoming.empty();
    return (readable ? std::uint32_t{EPOLLIN} : 0U) | (socket.room > 0 ? std::uint32_t{EPOLLOUT} : 0U) |
           (socket.peerLeft ? std::uint32_t{EPOLLHUP} : 0U);
}

int collectEvents(epoll_event *events, int size) {
    int count = 0;
    for (const auto &[fd, interest] : world().interests) {
        const std::uint32_t met = eventsOf(fd) & (interest | EPOLLHUP);
        if (met == 0 || count == size)
            continue;
        events[count].events = met;
        events[count].data.fd = fd;
        ++count;
    }
    return count;
}

bool isFake(int fd) { return fd >= kListener; }

} // namespace

void resetSockets(std::function<void()> act) {
    world() = World();
    world().act = std::move(act);
}

int makeListener() { return kListener; }

int makeSocket(const FakeSocket &socket) {
    world().sockets[world().next] = socket;
    return world().next++;
}

int connectClient(const FakeSocket &socket) {
    world().toBeAccepted.push_back(makeSocket(socket));
    return world().toBeAccepted.back();
}

FakeSocket &socketAt(int fd) {
    const auto found = world().sockets.find(fd);
    require(found != world().sockets.end(), "a descriptor is one of a socket");
    return found->second;
}

void passTime(std::chrono::milliseconds time) { world().now += time; }

} // namespace fuzz

using fuzz::failWith;
using fuzz::FakeSocket;
using fuzz::socketAt;
using fuzz::world;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's words
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd);
extern "C" ssize_t __wrap_recv(int fd, void *buffer, std::size_t size, int flags);
extern "C" ssize_t __wrap_send(int fd, const void *bytes, std::size_t size, int flags);
extern "C" int __wrap_shutdown(int fd, int how);
extern "C" int __wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags);
extern "C" int __wrap_getsockopt(int fd, int level, int option, void *value, socklen_t *length);
extern "C" int __wrap_epoll_create1(int flags);
extern "C" int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event *event);
extern "C" int __wrap_epoll_wait(int epoll, epoll_event *events, int size, int timeout);
// NOLINTEND(bugprone-reserved-identifier)
std::chrono::steady_clock::time_point fakeNow() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point fakeNow() { return world().now; }

int __wrap_close(int fd) {
    if (!fuzz::isFake(fd))
        return __real_close(fd);
    if (fd >= fuzz::kFirstSocket) {
        FakeSocket &socket = socketAt(fd);
        fuzz::require(!socket.isClosed, "a descriptor is closed once");
        fuzz::require(world().interests.count(fd) == 0, "a descriptor is unwatched before it is closed");
        socket.isClosed = true;
    }
    return 0;
}

ssize_t __wrap_recv(int fd, void *buffer, std::size_t size, int flags) {
    FakeSocket &socket = socketAt(fd);
    fuzz::require((flags & MSG_DONTWAIT) != 0, "nobody waits in a system call");
    if (socket.incoming.empty())
        return socket.peerLeft || socket.peerSaysNoMore ? 0 : failWith(EAGAIN);
    std::string &front = socket.incoming.front();
    const std::size_t given = std::min(size, front.size());
    std::memcpy(buffer, front.data(), given);
    const std::size_t told = (flags & MSG_TRUNC) != 0 ? front.size() : given;
    front.erase(0, given);
    if (socket.keepsBoundaries || front.empty())
        socket.incoming.pop_front();
    return static_cast<ssize_t>(told);
}

ssize_t __wrap_send(int fd, const void *bytes, std::size_t size, int flags) {
    FakeSocket &socket = socketAt(fd);
    fuzz::require((flags & MSG_DONTWAIT) != 0 && (flags & MSG_NOSIGNAL) != 0,
                  "nobody waits, or dies, in a system call");
    if (socket.peerLeft)
        return failWith(EPIPE);
    if (socket.room == 0)
        return failWith(EAGAIN);
    const std::size_t taken = socket.keepsBoundaries ? size : std::min(size, socket.room);
    socket.sent.emplace_back(static_cast<const char *>(bytes), taken);
    socket.room -= socket.keepsBoundaries ? 1 : taken;
    return static_cast<ssize_t>(taken);
}

int __wrap_shutdown(int fd, int how) {
    FakeSocket &socket = socketAt(fd);
    if (how == SHUT_RD)
        socket.peerSaysNoMore = true;
    return 0;
}

int __wrap_accept4(int, sockaddr *, socklen_t *, int) {
    if (world().toBeAccepted.empty())
        return static_cast<int>(failWith(EAGAIN));
    const int fd = world().toBeAccepted.front();
    world().toBeAccepted.pop_front();
    return fd;
}

int __wrap_getsockopt(int fd, int, int, void *value, socklen_t *length) {
    const FakeSocket &socket = socketAt(fd);
    ucred credentials{};
    credentials.uid = socket.user;
    credentials.pid = socket.process;
    std::memcpy(value, &credentials, std::min<std::size_t>(*length, sizeof credentials));
    return 0;
}

int __wrap_epoll_create1(int) { return fuzz::kEpoll; }

int __wrap_epoll_ctl(int, int operation, int fd, epoll_event *event) {
    auto &interests = world().interests;
    if ((operation == EPOLL_CTL_ADD) == (interests.count(fd) != 0))
        return static_cast<int>(failWith(operation == EPOLL_CTL_ADD ? EEXIST : ENOENT));
    if (operation == EPOLL_CTL_DEL)
        interests.erase(fd);
    else
        interests[fd] = event->events;
    return 0;
}

int __wrap_epoll_wait(int, epoll_event *events, int size, int timeout) {
    const int count = fuzz::collectEvents(events, size);
    if (count > 0 || timeout == 0)
        return count;
    world().act();
    return fuzz::collectEvents(events, size);
}
