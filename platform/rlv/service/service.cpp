#include "rlv/service/service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <random>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

#include "rlv/service/service-log.h"
#include "support/peer-credentials.h"

namespace rlv {
namespace {

constexpr std::chrono::milliseconds kSweepInterval{250};
constexpr std::chrono::milliseconds kAcceptPause{500};

std::uint64_t newServiceId() {
    std::random_device device;
    const std::uint64_t high = device();
    return (high << 32 | device()) | 1; // never 0
}

} // namespace

Service::Service(support::EventLoop &loop, Table &table, support::UniqueFd listener, const ServiceOptions &options)
    : loop_(loop), options_(options), context_{loop,
                                               table,
                                               TableTurns(loop),
                                               ConnectionHistory(),
                                               {loop, options.names},
                                               {loop, table, options.isMending},
                                               options.chainPrefix,
                                               options.maxWait,
                                               options.resolveNames,
                                               options.logAccepted,
                                               options.simulated,
                                               newServiceId()},
      listener_(std::move(listener)) {
    context_.drift.onUnjudged([this] { tellWatchers(); });
    loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { accept(); });
}

Service::~Service() {
    for (const auto timer : {sweepTimer_, burialTimer_, acceptTimer_})
        loop_.cancel(timer);
    loop_.unwatch(listener_.get());
}

void Service::accept() {
    support::UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    fd = support::aboveStandardStreams(std::move(fd));
    if (!fd) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)
            pauseAccepting();
        return;
    }
    try {
        admit(std::move(fd));
    } catch (const std::exception &error) {
        RLVD_ERROR("a client cannot be served: %s", error.what());
    }
}

// The client stays in the queue and would wake the loop again at once.
void Service::pauseAccepting() {
    RLVD_ERROR("no client can be accepted for now: %s", std::strerror(errno));
    loop_.change(listener_.get(), 0);
    acceptTimer_ = loop_.after(kAcceptPause, [this] { loop_.change(listener_.get(), EPOLLIN); });
}

void Service::admit(support::UniqueFd fd) {
    const auto peer = support::peerOf(fd);
    if (!peer)
        return;
    const auto [error, why] = refusalFor(*peer);
    if (error == 0)
        return serve(std::move(fd), *peer);
    RLVD_ERROR("user %u, process %d is refused: %s", peer->user, peer->process, why.c_str());
    refuse(std::move(fd), protocol::encode(protocol::Reply{protocol::Reply::Kind::refused, error, 0, why}));
}

std::pair<int, std::string> Service::refusalFor(const support::Peer &peer) const {
    if (peer.user != 0 && options_.users.count(peer.user) == 0)
        return {EACCES, "this account is not served"};
    if (sessions_.size() >= options_.maxClients)
        return {EBUSY, "too many clients"};
    const auto ofUser = std::count_if(sessions_.begin(), sessions_.end(),
                                      [&](const auto &session) { return session->peer().user == peer.user; });
    if (static_cast<std::size_t>(ofUser) >= options_.maxClientsPerUser)
        return {EBUSY, "too many clients of this account"};
    return {0, {}};
}

void Service::serve(support::UniqueFd fd, const support::Peer &peer) {
    sessions_.reserve(sessions_.size() + 1);
    auto session = std::make_unique<Session>(context_, std::move(fd), peer);
    const Session *const served = session.get();
    session->onEnd([this, served] { bury(served); });
    session->onRequest([this] { sweepLater(); });
    sessions_.push_back(std::move(session));
    sweepLater();
}

void Service::bury(const Session *session) {
    const auto found = std::find_if(sessions_.begin(), sessions_.end(),
                                    [session](const auto &entry) { return entry.get() == session; });
    if (found == sessions_.end())
        return;
    dead_.push_back(std::move(*found));
    sessions_.erase(found);
    if (burialTimer_ == 0)
        burialTimer_ = loop_.after(std::chrono::milliseconds(0), [this] {
            burialTimer_ = 0;
            dead_.clear();
        });
}

void Service::tellWatchers() {
    sweepLater();
    for (const auto &session : sessions_)
        session->tellUnjudged();
}

const char *Service::faultOf(const Session &session) const {
    const auto silence = support::EventLoop::Clock::now() - session.stream().lastActivity();
    if (session.stream().stuck())
        return silence > options_.patience ? "it does not read its reply" : nullptr;
    if (session.stream().busy() || session.isWatching())
        return nullptr;
    if (session.isOpen() && context_.turns.isWaitedFor() && silence > options_.maxIdleWhileWaitedFor)
        return "it has been silent for too long while others wait";
    if (session.isOpen())
        return silence > options_.maxIdle ? "it has been silent for too long" : nullptr;
    return silence > options_.patience ? "it does not say what it wants" : nullptr;
}

// One timer for all clients, and none while there are none but those who watch, which is all night: each time that it
// expires costs a device a wake-up.
void Service::sweepLater() {
    if (sweepTimer_ == 0)
        sweepTimer_ = loop_.after(kSweepInterval, [this] { sweep(); });
}

void Service::sweep() {
    sweepTimer_ = 0;
    std::vector<std::pair<Session *, const char *>> faulty;
    for (const auto &session : sessions_) {
        if (const char *fault = faultOf(*session))
            faulty.emplace_back(session.get(), fault);
    }
    for (const auto &[session, fault] : faulty)
        session->end(fault);
    const bool canFail = std::any_of(sessions_.begin(), sessions_.end(), [](const auto &session) {
        return !session->isWatching() || session->stream().busy() || session->stream().stuck();
    });
    if (canFail)
        sweepLater();
}

} // namespace rlv
