// The service's end of one client's socket.
#ifndef PLATFORM_RLV_SERVICE_PACKET_STREAM_H
#define PLATFORM_RLV_SERVICE_PACKET_STREAM_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <sys/socket.h>

#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace rlv {

// Takes one packet at a time from a SOCK_SEQPACKET socket: after each one nothing more is read until goOn() was called,
// or reply() and all of the reply has been taken by the kernel. So a client that sends much or reads nothing fills its
// own socket buffers and nothing here. Never blocks.
class PacketStream {
public:
    // Told of what happens, from within the event loop or from within reply() and goOn(). May not delete the stream
    // while it is told.
    class Handler {
    public:
        virtual ~Handler() = default;
        // `sizeBytes` is the packet's true length; `packet` is its beginning, longer than any request that is
        // understood, and gone after the call.
        virtual void received(std::string_view packet, std::size_t sizeBytes) = 0;
        // The client is gone. Told once; nothing is told after it.
        virtual void gone() = 0;
    };

    // Watches `fd` until the end of the object.
    PacketStream(support::EventLoop &loop, support::UniqueFd fd, Handler &handler);
    ~PacketStream();
    PacketStream(const PacketStream &) = delete;
    PacketStream &operator=(const PacketStream &) = delete;

    // Sends packets, in order, and then reads on.
    void reply(std::deque<std::string> packets);
    // Reads on.
    void goOn();
    // Stops reading and watching and lets the client read what was sent, without the error that closing a socket with
    // unread packets gives it. Nothing is told any more.
    void shutDown();

    // The last packet came, or the last packet of a reply could be sent, at this time.
    support::EventLoop::Clock::time_point lastActivity() const { return lastActivity_; }
    // A request was received and its reply not yet given to the client as a whole.
    bool busy() const { return busy_; }
    // Part of a reply waits for the client to read.
    bool stuck() const { return !unsent_.empty(); }

private:
    void ready(std::uint32_t events);
    void handle(std::uint32_t events);
    void receive();
    void sendUnsent();
    void lose();
    void updateInterest();

    support::EventLoop &loop_;
    support::UniqueFd fd_;
    Handler &handler_;
    std::deque<std::string> unsent_;
    std::uint32_t interest_ = 0;
    bool busy_ = false;
    bool ended_ = false;
    support::EventLoop::Clock::time_point lastActivity_;
};

// Sends one packet to a client that is not to be served, and closes the socket.
void refuse(support::UniqueFd fd, const std::string &packet);

} // namespace rlv

#endif
