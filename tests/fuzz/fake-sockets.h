// Sockets, epoll and the monotonic clock in memory, for fuzzers of what runs on an event loop: no system call, and
// every run of an input the same. Link fuzz-fake-sockets; what is linked with it knows no other sockets.
#ifndef TESTS_FUZZ_FAKE_SOCKETS_H
#define TESTS_FUZZ_FAKE_SOCKETS_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <limits>
#include <string>
#include <sys/types.h>

namespace fuzz {

// The program's end of a socket, and what the peer does with the other one.
struct FakeSocket {
    bool keepsBoundaries = false; // of packets, as SOCK_SEQPACKET does
    uid_t user = 0;               // the peer's
    pid_t process = 0;
    std::deque<std::string> incoming; // each is given by one recv(2) at the most
    bool peerSaysNoMore = false;
    bool peerLeft = false;
    // How many packets, or bytes, can be sent before the peer reads something.
    std::size_t room = std::numeric_limits<std::size_t>::max();
    std::deque<std::string> sent;
    bool isClosed = false;
};

// Forgets all sockets. `act` is called whenever the program waits and nothing is ready: it plays the peers, one step at
// a time, and ends the program's loop after the last.
void resetSockets(std::function<void()> act);

// A listening socket; the descriptor is the caller's, as all others.
int makeListener();
// A client: a descriptor for accept4() to return, in the order of the calls.
int connectClient(const FakeSocket &socket);
// A socket that has a descriptor without being accepted.
int makeSocket(const FakeSocket &socket);
FakeSocket &socketAt(int fd);

void passTime(std::chrono::milliseconds time);

} // namespace fuzz

#endif
