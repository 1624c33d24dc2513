#include "mavo/rmi-request-stream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace mavo {
namespace rmi {

namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;
// So that one fast sender leaves the loop to the others in between.
constexpr int kChunksPerTurn = 4;
constexpr std::size_t kDrainLimitBytes = 2 * kBodyLimitBytes;

} // namespace

RequestStream::RequestStream(support::EventLoop &loop, support::UniqueFd socket, Caller caller,
                             const ServerLimits &limits, RequestHandler &handler)
    : loop_(loop), socket_(std::move(socket)), caller_(std::move(caller)), requestTimeout_(limits.requestTimeout),
      idleTimeout_(limits.idleTimeout), handler_(handler), interest_(EPOLLIN) {
    loop_.watch(socket_.get(), interest_, [this](std::uint32_t) { ready(); });
    startTimer(idleTimeout_);
    expect(Input::head, kRequestHeadBytes);
}

RequestStream::~RequestStream() {
    loop_.cancel(timer_);
    loop_.unwatch(socket_.get());
}

void RequestStream::ready() {
    try {
        goOn();
    } catch (const std::exception &) {
        over_ = true; // out of memory, most likely; the other connections go on
    }
    leaveIfOver();
}

// Which of its events the socket has does not matter: reading and writing find out, and one of the two is always
// wanted.
void RequestStream::goOn() {
    if (hasOutput())
        writeSome();
    for (int i = 0; i < kChunksPerTurn && !over_ && input_ != Input::none; ++i) {
        if (!readSome())
            break;
    }
    if (!over_ && hasOutput())
        writeSome();
    if (!over_)
        updateInterest();
}

// False when there is nothing to read for now.
bool RequestStream::readSome() {
    std::array<char, kChunkBytes> chunk; // not cleared: only what came is used
    const ssize_t got = ::recv(socket_.get(), chunk.data(), std::min(chunk.size(), left_), MSG_DONTWAIT);
    if (got < 0) {
        over_ = errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
        return false;
    }
    if (got == 0)
        inputEnded();
    else
        take(chunk.data(), static_cast<std::size_t>(got));
    return got > 0;
}

void RequestStream::take(const char *bytes, std::size_t size) {
    if (input_ == Input::head && collected_.empty())
        startTimer(requestTimeout_);
    left_ -= size;
    if (input_ != Input::discard && input_ != Input::drain)
        collected_.append(bytes, size);
    if (input_ == Input::head && !beginsRequest(collected_))
        endWith("not a request");
    else if (left_ == 0)
        arrived();
}

void RequestStream::expect(Input input, std::size_t bytes) {
    input_ = input;
    left_ = bytes;
    std::string().swap(collected_); // gives back what a large body took
    if (left_ == 0)
        arrived();
}

void RequestStream::arrived() {
    switch (input_) {
    case Input::head:
        return headArrived();
    case Input::name:
        return nameArrived();
    case Input::body:
        return bodyArrived();
    case Input::discard:
        return requestRead();
    case Input::drain:
        over_ = true;
        return;
    case Input::none:
        return;
    }
}

void RequestStream::headArrived() {
    const auto head = decodeRequestHead(collected_);
    if (!head)
        return endWith("method name longer than " + std::to_string(kMethodNameLimitBytes) +
                       " bytes or body longer than " + std::to_string(kBodyLimitBytes));
    bodyBytes_ = head->bodyBytes;
    expect(Input::name, head->nameBytes);
}

void RequestStream::nameArrived() {
    RequestName name = splitRequestName(collected_);
    method_ = std::move(name.method);
    caller_.program = std::move(name.program);
    const auto refused = handler_.refusal(caller_, method_, bodyBytes_);
    if (refused)
        answer(*refused);
    expect(refused ? Input::discard : Input::body, bodyBytes_);
}

void RequestStream::bodyArrived() {
    std::string body = std::move(collected_);
    input_ = Input::none;
    answer(handler_.carryOut(caller_, method_, std::move(body)));
    requestRead();
}

void RequestStream::requestRead() {
    input_ = Input::none;
    startTimer(idleTimeout_);
    if (!hasOutput())
        replyWritten();
}

void RequestStream::inputEnded() {
    if (insideRequest())
        answer({Status::malformed, {}, "request ends early", {}});
    input_ = Input::none;
    ending_ = true;
    over_ = !hasOutput();
}

bool RequestStream::insideRequest() const {
    return (input_ == Input::head && !collected_.empty()) || input_ == Input::name || input_ == Input::body;
}

void RequestStream::answer(const Reply &reply) {
    output_ = encodeReply(reply);
    if (output_.size() > kReplyHeadBytes + kReplyLimitBytes)
        output_ = encodeReply({Status::exception, {}, "the reply is too large", {}});
    written_ = 0;
}

void RequestStream::endWith(const std::string &error) {
    answer({Status::malformed, {}, error, {}});
    ending_ = true;
    expect(Input::drain, kDrainLimitBytes);
}

void RequestStream::writeSome() {
    const ssize_t sent =
        ::send(socket_.get(), output_.data() + written_, output_.size() - written_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        over_ = errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
        return;
    }
    written_ += static_cast<std::size_t>(sent);
    if (!hasOutput())
        replyWritten();
}

void RequestStream::replyWritten() {
    std::string().swap(output_);
    if (ending_ && input_ == Input::drain)
        ::shutdown(socket_.get(), SHUT_WR);
    else if (ending_)
        over_ = true;
    else if (input_ == Input::none)
        expect(Input::head, kRequestHeadBytes);
}

void RequestStream::updateInterest() {
    const std::uint32_t wanted = (input_ != Input::none ? EPOLLIN : 0U) | (hasOutput() ? EPOLLOUT : 0U);
    if (wanted == interest_)
        return;
    loop_.change(socket_.get(), wanted);
    interest_ = wanted;
}

void RequestStream::startTimer(std::chrono::milliseconds delay) {
    loop_.cancel(timer_);
    timeInCallsAtStart_ = handler_.timeInCalls();
    timer_ = loop_.after(delay, [this] { timerExpired(); });
}

void RequestStream::timerExpired() {
    timer_ = 0;
    const auto waited = handler_.timeInCalls() - timeInCallsAtStart_;
    if (waited.count() > 0)
        return startTimer(waited);
    if (insideRequest()) {
        answer({Status::malformed, {}, "request not complete in time", {}});
        writeSome();
    }
    over_ = true;
    leaveIfOver();
}

void RequestStream::leaveIfOver() {
    if (over_)
        handler_.ended(*this);
}

} // namespace rmi
} // namespace mavo
