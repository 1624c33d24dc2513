// One client's connection to a server of remote methods.
#ifndef PLATFORM_MAVO_RMI_REQUEST_STREAM_H
#define PLATFORM_MAVO_RMI_REQUEST_STREAM_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>

#include "mavo/rmi-protocol.h"
#include "mavo/rmi-server.h"
#include "support/event-loop.h"
#include "support/peer-credentials.h"
#include "support/unique-fd.h"

namespace mavo {
namespace rmi {

class RequestStream;

// What a stream asks of the server that owns it.
class RequestHandler {
public:
    virtual ~RequestHandler() = default;

    // The answer to a request that is refused by its head, or none. The caller's program is that of the request.
    virtual std::optional<Reply> refusal(const Caller &caller, const std::string &method, std::size_t bodyBytes) = 0;
    virtual Reply carryOut(const Caller &caller, const std::string &method, std::string body) = 0;
    // The time spent so far in carrying out calls. It is not held against clients that waited meanwhile.
    virtual std::chrono::milliseconds timeInCalls() const = 0;
    // The stream is over and is destroyed in this call.
    virtual void ended(RequestStream &stream) = 0;
};

// Reads one request, answers it, reads the next, each step as far as the socket goes without blocking. Loop and handler
// must outlive it.
class RequestStream {
public:
    // `socket` is non-blocking. Throws std::system_error when it cannot be watched.
    RequestStream(support::EventLoop &loop, support::UniqueFd socket, Caller caller, const ServerLimits &limits,
                  RequestHandler &handler);
    ~RequestStream();
    RequestStream(const RequestStream &) = delete;
    RequestStream &operator=(const RequestStream &) = delete;

    int descriptor() const { return socket_.get(); }
    const Caller &caller() const { return caller_; }
    // The announced size of the body that is being read, 0 when none is.
    std::size_t bodyUnderWay() const { return input_ == Input::body ? bodyBytes_ : 0; }
    // The size of the reply that has not gone yet, 0 when there is none.
    std::size_t replyUnderWay() const { return hasOutput() ? output_.size() : 0; }

private:
    enum class Input {
        head,    // of the next request; nothing of it has come while collected_ is empty
        name,    //
        body,    //
        discard, // the body of a request that was refused
        drain,   // whatever a client still sends whose connection ends, so that it can read why
        none     // until the reply has gone
    };

    void ready();
    void goOn();
    bool readSome();
    void take(const char *bytes, std::size_t size);
    void expect(Input input, std::size_t bytes);
    void arrived();
    void headArrived();
    void nameArrived();
    void bodyArrived();
    void requestRead();
    void inputEnded();
    bool insideRequest() const;

    void answer(const Reply &reply);
    void endWith(const std::string &error);
    bool hasOutput() const { return written_ < output_.size(); }
    void writeSome();
    void replyWritten();

    void updateInterest();
    void startTimer(std::chrono::milliseconds delay);
    void timerExpired();
    void leaveIfOver();

    support::EventLoop &loop_;
    support::UniqueFd socket_;
    Caller caller_;
    std::chrono::milliseconds requestTimeout_;
    std::chrono::milliseconds idleTimeout_;
    RequestHandler &handler_;

    Input input_ = Input::none;
    std::size_t left_ = 0; // bytes until what is expected is complete
    std::string collected_;
    std::string method_;
    std::size_t bodyBytes_ = 0;
    std::string output_;
    std::size_t written_ = 0;
    bool ending_ = false; // no further request is read
    bool over_ = false;
    std::uint32_t interest_ = 0;
    support::EventLoop::Timer timer_ = 0;
    std::chrono::milliseconds timeInCallsAtStart_{0};
};

} // namespace rmi
} // namespace mavo

#endif
