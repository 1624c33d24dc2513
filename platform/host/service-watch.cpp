#include "host/service-watch.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <sys/epoll.h>
#include <utility>

#include "host/log.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kPause{500};
constexpr std::chrono::milliseconds kConnectTimeout{100};
constexpr std::chrono::milliseconds kLongestPause{30'000};

} // namespace

ServiceWatch::ServiceWatch(support::EventLoop &loop, ServiceId builtBy, Changed changed)
    : loop_(loop), builtBy_(std::move(builtBy)), changed_(std::move(changed)), pauseAfterRefusal_(kPause) {
    timer_ = loop_.after(std::chrono::milliseconds(0), [this] { connect(); });
}

ServiceWatch::~ServiceWatch() {
    loop_.cancel(timer_);
    if (fd_)
        loop_.unwatch(fd_.get());
}

// Its first word tells which service it is.
void ServiceWatch::connect() {
    timer_ = 0;
    try {
        fd_ = rlv::openWatch(kConnectTimeout);
        loop_.watch(fd_.get(), EPOLLIN, [this](std::uint32_t) { receive(); });
    } catch (const std::exception &) {
        fd_.reset();
        timer_ = loop_.after(kPause, [this] { connect(); });
    }
}

void ServiceWatch::receive() {
    const auto notice = rlv::receiveNotice(fd_.get());
    if (!notice)
        return;
    if (notice->isEnd)
        lose();
    else
        judge(*notice);
}

void ServiceWatch::lose() {
    loop_.unwatch(fd_.get());
    fd_.reset();
    auto pause = kPause / 10;
    if (!std::exchange(isServed_, false)) {
        pause = pauseAfterRefusal_;
        pauseAfterRefusal_ = std::min(pause * 2, kLongestPause);
    }
    timer_ = loop_.after(pause, [this] { connect(); });
}

void ServiceWatch::judge(const rlv::WatchNotice &notice) {
    isServed_ = true;
    pauseAfterRefusal_ = kPause;
    if (notice.serviceId != builtBy_())
        changed_("the traffic-control service was started anew");
    else if (notice.isUnjudged)
        changed_("others have changed the tables");
}

} // namespace host
