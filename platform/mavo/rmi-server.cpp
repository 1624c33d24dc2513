#include "mavo/rmi-server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <map>
#include <optional>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "mavo/database.h"
#include "mavo/rmi-request-stream.h"
#include "support/peer-credentials.h"

namespace mavo {
namespace rmi {

namespace {

using support::UniqueFd;

constexpr int kAcceptsPerTurn = 16;
constexpr std::chrono::milliseconds kAcceptPause{100};

// Whether the process can open that many more files. Asks for some dozens of numbers at a time and stops at enough; it
// costs no descriptor of its own.
bool descriptorsFree(int wanted) {
    constexpr int kAtATime = 128;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    const auto end = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max()));
    std::array<pollfd, kAtATime> asked{};
    for (int first = 0; wanted > 0 && first < end; first += kAtATime) {
        const int count = std::min(kAtATime, end - first);
        for (int i = 0; i < count; ++i)
            asked[static_cast<std::size_t>(i)] = {first + i, 0, 0};
        if (::poll(asked.data(), static_cast<nfds_t>(count), 0) < 0)
            return false;
        wanted -= static_cast<int>(std::count_if(asked.begin(), asked.begin() + count,
                                                 [](const pollfd &one) { return (one.revents & POLLNVAL) != 0; }));
    }
    return wanted <= 0;
}

// Its end of life is the socket's, whose buffer is empty yet: one small frame always fits.
void refuseAsBusy(const UniqueFd &socket, const char *why) {
    const std::string frame = encodeReply({Status::busy, {}, why, {}});
    [[maybe_unused]] const ssize_t sent = ::send(socket.get(), frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::optional<Caller> callerOf(const UniqueFd &socket, const Privileges &privileges) {
    const auto peer = support::peerOf(socket);
    if (!peer)
        return std::nullopt;
    return Caller{*peer, privileges.holdsAny(peer->user, peer->group), {}};
}

std::string oneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, ' ');
    return text;
}

} // namespace

class Server::Impl : public RequestHandler {
public:
    Impl(support::EventLoop &loop, UniqueFd listener, Privileges privileges, ServerLimits limits, Find find,
         Invoke invoke)
        : loop_(loop), listener_(std::move(listener)), privileges_(std::move(privileges)), limits_(limits),
          rootsOwn_(limits.connections / 8), find_(std::move(find)), invoke_(std::move(invoke)) {
        if (::fcntl(listener_.get(), F_SETFL, ::fcntl(listener_.get(), F_GETFL) | O_NONBLOCK) != 0)
            throw std::system_error(errno, std::generic_category(), "listener");
        watchListener();
    }
    ~Impl() override {
        loop_.cancel(pause_);
        loop_.unwatch(listener_.get());
    }
    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    std::vector<int> descriptors() const {
        std::vector<int> all{listener_.get()};
        for (const auto &entry : streams_)
            all.push_back(entry.first);
        return all;
    }

    std::optional<Reply> refusal(const Caller &caller, const std::string &method, std::size_t bodyBytes) override {
        auto refused = refusal(caller, find_(method));
        if (!refused && !hasRoomFor(caller, bodyBytes))
            refused = Reply{Status::busy, {}, "too many large requests under way", {}};
        return refused;
    }

    Reply carryOut(const Caller &caller, const std::string &method, std::string body) override {
        // Asked anew: the table may have been exchanged since the head of the request.
        const auto context = find_(method);
        if (const auto refused = refusal(caller, context))
            return *refused;
        if (!hasRoomForReply(caller))
            return Reply{Status::busy, {}, "too many large replies are not read yet", {}};
        Message request(std::move(body));
        const auto start = support::EventLoop::Clock::now();
        Reply reply = invoke_(caller, method, *context, request);
        timeInCalls_ += std::chrono::ceil<std::chrono::milliseconds>(support::EventLoop::Clock::now() - start);
        return reply;
    }

    std::chrono::milliseconds timeInCalls() const override { return timeInCalls_; }

    void ended(RequestStream &stream) override { streams_.erase(stream.descriptor()); }

private:
    std::optional<Reply> refusal(const Caller &caller, const std::shared_ptr<const MethodContext> &context) const {
        if (!context)
            return Reply{Status::unknownMethod, {}, "no such method", {}};
        if (!privileges_.holds(caller.user, caller.group, context->privilege))
            return Reply{Status::denied, {}, "needs the privilege " + oneLine(privilegePath(context->privilege)), {}};
        return std::nullopt;
    }

    bool hasRoomFor(const Caller &caller, std::size_t bodyBytes) const {
        if (bodyBytes <= kSmallBodyBytes)
            return true;
        const UnderWay bodies = underWay(caller, &RequestStream::bodyUnderWay);
        return isWithinShare(caller, {bodies.all + bodyBytes, bodies.ofUser + bodyBytes}, limits_.bodyBytes);
    }

    // How large the reply will be, nobody knows before the call.
    bool hasRoomForReply(const Caller &caller) const {
        return isWithinShare(caller, underWay(caller, &RequestStream::replyUnderWay), limits_.replyBytes);
    }

    struct UnderWay {
        std::size_t all;
        std::size_t ofUser;
    };

    UnderWay underWay(const Caller &caller, std::size_t (RequestStream::*sizeOf)() const) const {
        UnderWay sum{0, 0};
        for (const auto &entry : streams_) {
            const std::size_t bytes = (*entry.second.*sizeOf)();
            if (bytes <= kSmallBodyBytes)
                continue;
            sum.all += bytes;
            sum.ofUser += entry.second->caller().user == caller.user ? bytes : 0;
        }
        return sum;
    }

    static bool isWithinShare(const Caller &caller, const UnderWay &sum, std::size_t limit) {
        const std::size_t quarter = limit / 4;
        return caller.user == 0 ? sum.all <= limit : sum.all <= 3 * quarter && sum.ofUser <= quarter;
    }

    void watchListener() {
        loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { acceptSome(); });
    }

    void acceptSome() {
        for (int i = 0; i < kAcceptsPerTurn; ++i) {
            UniqueFd socket = support::aboveStandardStreams(
                UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
            if (socket)
                admit(std::move(socket));
            else if (errno == EAGAIN || errno == EWOULDBLOCK)
                return;
            else if (errno != EINTR && errno != ECONNABORTED)
                return pauseAccepting();
        }
    }

    // The process or the machine is out of something; the listener stays ready meanwhile and must not keep us busy.
    void pauseAccepting() {
        loop_.unwatch(listener_.get());
        pause_ = loop_.after(kAcceptPause, [this] {
            pause_ = 0;
            try {
                watchListener();
            } catch (const std::exception &) {
                pauseAccepting();
            }
        });
    }

    void admit(UniqueFd socket) {
        const auto caller = callerOf(socket, privileges_);
        if (!caller)
            return;
        if (const char *why = reasonToRefuse(*caller))
            return refuseAsBusy(socket, why);
        const int fd = socket.get();
        try {
            streams_[fd] = std::make_unique<RequestStream>(loop_, std::move(socket), *caller, limits_, *this);
        } catch (const std::exception &) {
            streams_.erase(fd);
        }
    }

    // Null when the client is welcome. What is kept for root, others do not get.
    const char *reasonToRefuse(const Caller &caller) const {
        const int kept = caller.user == 0 ? 0 : rootsOwn_;
        if (static_cast<int>(streams_.size()) >= limits_.connections - kept)
            return "too many connections";
        if (caller.user != 0 &&
            countOf([&caller](const Caller &other) { return other.user == caller.user; }) >= limits_.connectionsPerUser)
            return "too many connections of this user";
        // Anybody can have many accounts.
        if (!caller.holdsPrivilege &&
            countOf([](const Caller &other) { return !other.holdsPrivilege; }) >= limits_.connectionsWithoutPrivilege)
            return "too many connections of accounts without a privilege";
        if (!descriptorsFree(limits_.reservedDescriptors + kept))
            return "too few descriptors left";
        return nullptr;
    }

    template <typename Which> std::ptrdiff_t countOf(Which which) const {
        return std::count_if(streams_.begin(), streams_.end(),
                             [&which](const auto &entry) { return which(entry.second->caller()); });
    }

    support::EventLoop &loop_;
    UniqueFd listener_;
    Privileges privileges_;
    ServerLimits limits_;
    int rootsOwn_; // connections that only root gets
    Find find_;
    Invoke invoke_;
    std::chrono::milliseconds timeInCalls_{0};
    support::EventLoop::Timer pause_ = 0;
    std::map<int, std::unique_ptr<RequestStream>> streams_; // by descriptor
};

Server::Server(support::EventLoop &loop, UniqueFd listener, Privileges privileges, ServerLimits limits, Find find,
               Invoke invoke)
    : impl_(std::make_unique<Impl>(loop, std::move(listener), std::move(privileges), limits, std::move(find),
                                   std::move(invoke))) {}

Server::~Server() = default;

std::vector<int> Server::descriptors() const { return impl_->descriptors(); }

Reply invokeMethod(const MethodContext &method, Message &request) {
    Reply reply;
    try {
        reply.body = method.dispatcher(request).body();
    } catch (const BadArguments &exception) {
        reply = {Status::malformed, {}, oneLine(exception.what()), {}};
    } catch (const std::exception &exception) {
        const char *text = exception.what();
        const bool says = text != nullptr && *text != '\0';
        reply = {Status::exception, {}, oneLine(says ? text : "unknown exception"), {}};
    } catch (const database::Unavailable &unavailable) {
        reply = {Status::exception, {}, oneLine(unavailable.what()), {}};
    } catch (...) {
        reply = {Status::exception, {}, "unknown exception", {}};
    }
    return reply;
}

} // namespace rmi
} // namespace mavo
