#include "host/service-watch.h"

#include <chrono>
#include <exception>
#include <sys/epoll.h>
#include <utility>

#include "host/log.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kPause{500};
constexpr std::chrono::milliseconds kConnectTimeout{100};

} // namespace

ServiceWatch::ServiceWatch(support::EventLoop &loop, ServiceId builtBy, Changed changed)
    : loop_(loop), builtBy_(std::move(builtBy)), changed_(std::move(changed)) {
    timer_ = loop_.after(std::chrono::milliseconds(0), [this] { connect(); });
}

ServiceWatch::~ServiceWatch() {
    loop_.cancel(timer_);
    if (fd_)
        loop_.unwatch(fd_.get());
}

// Its first word tells which service it is. One that does not serve, or not us, is looked for again.
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
    timer_ = loop_.after(std::chrono::milliseconds(kPause / 10), [this] { connect(); });
}

void ServiceWatch::judge(const rlv::WatchNotice &notice) {
    if (notice.serviceId != builtBy_())
        changed_("the traffic-control service was started anew");
    else if (notice.isUnjudged)
        changed_("others have changed the tables");
}

} // namespace host
