// A service that does what the test says, in this process, and the calls of a client in one line.
#ifndef TESTS_PLATFORM_RLV_SCRIPTED_SERVICE_H
#define TESTS_PLATFORM_RLV_SCRIPTED_SERVICE_H

#include "rlv/rlv-query.h"
#include "rlv/rlv.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace scripted {

using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;

constexpr const char *kPath = "/run/scripted";

inline sockaddr_un address() {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    std::strncpy(result.sun_path, kPath, sizeof result.sun_path - 1);
    return result;
}

inline UniqueFd listening() {
    const sockaddr_un at = address();
    ::unlink(kPath); // of the service before
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&at), sizeof at));
    EXPECT_EQ(0, ::listen(fd.get(), 8));
    return fd;
}

// The service's end of one client's socket, in a script.
class Peer {
public:
    explicit Peer(UniqueFd fd) : fd_(std::move(fd)) {}
    Request receive() {
        std::string packet(rlv::protocol::kMaxPacketBytes, '\0');
        const ssize_t size = ::recv(fd_.get(), packet.data(), packet.size(), 0);
        packet.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        Request request;
        return rlv::protocol::decodeRequest(packet, request) ? request : Request{};
    }
    void sendRaw(const std::string &packet) { ::send(fd_.get(), packet.data(), packet.size(), MSG_NOSIGNAL); }
    void send(Reply::Kind kind, int code = 0, std::uint64_t number = 0, const std::string &text = {}) {
        sendRaw(rlv::protocol::encode(Reply{kind, code, number, text}));
    }
    void close() { fd_.reset(); }
    void acceptOpening() {
        opening = receive();
        send(Reply::Kind::opened, 0, 1);
    }

    Request opening;

private:
    UniqueFd fd_;
};

// Serves one client by a script, on a thread of its own.
class ScriptedService {
public:
    explicit ScriptedService(std::function<void(Peer &)> script) : listener_(listening()) {
        rlv::setSocketPath(kPath);
        thread_ = std::thread([this, script = std::move(script)] {
            Peer peer(UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
            script(peer);
        });
    }
    ~ScriptedService() { thread_.join(); }

private:
    UniqueFd listener_;
    std::thread thread_;
};

struct Committed {
    int result = 0;
    int code = -1;
    std::string message = "left as it was";
};

inline Committed commit(rlv_handle handle, const std::string &options) {
    Committed committed;
    char *message = nullptr;
    committed.result = rlv_iptables_commit(handle, options.c_str(), &committed.code, &message);
    if (message != nullptr)
        committed.message = message;
    std::free(message);
    return committed;
}

inline rlv_handle open() {
    rlv_handle handle = 0;
    EXPECT_EQ(0, rlv_initialize(&handle));
    return handle;
}

} // namespace scripted

#endif
