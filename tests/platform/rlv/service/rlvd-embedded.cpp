#include "rlvd-embedded.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <new>
#include <sstream>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include <gtest/gtest.h>

#include "rlv/service/service-socket.h"
#include "rlvd-process.h"
#include "vlog/vlog-sink.h"

namespace rlvd {
namespace {

constexpr const char *kLog = "/run/embedded.log";
constexpr const char *kPushes = "/run/table-pushes";
constexpr std::uint64_t kBeyondList = 7;

std::string markerOf(Fault fault) { return "/run/table-fault-" + std::to_string(static_cast<int>(fault)); }

bool has(Fault fault) { return ::access(markerOf(fault).c_str(), F_OK) == 0; }

void failOn(Fault fault) {
    if (has(fault))
        throw std::system_error(ENOBUFS, std::generic_category(), "netlink");
}

class ObedientTable : public rlv::Table {
public:
    void open() override {
        failOn(Fault::openFails);
        table_->open();
    }
    rlv::Answer apply(const std::vector<rlv::Command> &commands, const std::string &options) override {
        if (has(Fault::applyLacksMemory))
            throw std::bad_alloc();
        if (oldest_ == Clock::time_point())
            oldest_ = Clock::now();
        return table_->apply(commands, options);
    }
    std::size_t room() const override { return table_->room(); }
    rlv::PushReport push() override {
        failOn(Fault::pushFails);
        const bool losesMany = has(Fault::pushLosesMany);
        const bool loses = losesMany || has(Fault::pushLoses);
        note(); // from here on the next fault may be set
        auto report = table_->push();
        if (loses)
            report.lost.push_back({"-A VPK-LOST -j DROP", 4, "iptables: the kernel will not"});
        if (losesMany)
            report.lostBeyondList = kBeyondList;
        return report;
    }
    rlv::PushReport discard() override {
        failOn(Fault::discardFails);
        return table_->discard();
    }
    void describe(rlv::ServiceState &state) override {
        failOn(Fault::describeFails);
        table_->describe(state);
    }
    void look(bool reading, const std::function<void(const rlv::Ruleset &)> &visit) override {
        table_->look(reading, visit);
    }
    void remember() override { table_->remember(); }
    void forget() override { table_->forget(); }
    bool remembers() const override { return table_->remembers(); }
    rlv::MendReport mend() override { return table_->mend(); }
    rlv::Answer removeAll() override {
        failOn(Fault::removalFails);
        return table_->removeAll();
    }

private:
    using Clock = std::chrono::steady_clock;

    void note() {
        const auto delay = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - oldest_);
        oldest_ = {};
        const std::string written = std::string(kPushes) + ".new";
        std::ofstream(written) << ++pushes_ << ' ' << delay.count();
        ::rename(written.c_str(), kPushes);
    }

    std::unique_ptr<rlv::Table> table_ = rlv::makeSimulatedTable("VPK-");
    Clock::time_point oldest_; // of what was not pushed yet
    int pushes_ = 0;
};

[[noreturn]] void serve(const rlv::ServiceOptions &options, int ready) {
    vlog::FileSink file;
    file.path = kLog;
    vlog::useFile(file);
    support::EventLoop loop;
    ObedientTable table;
    rlv::ServiceSocket socket(kSocket, ::getegid());
    const rlv::Service service(loop, table, socket.takeListener(), options);
    ::close(ready);
    loop.run();
    ::_exit(0);
}

std::pair<int, long> notedPushes() {
    std::pair<int, long> noted;
    std::ifstream(kPushes) >> noted.first >> noted.second;
    return noted;
}

} // namespace

EmbeddedService::EmbeddedService(const rlv::ServiceOptions &options) {
    rlv::setSocketPath(kSocket);
    std::array<int, 2> ready{};
    EXPECT_EQ(0, ::pipe(ready.data()));
    child_ = ::fork();
    if (child_ == 0)
        serve(options, ready[1]);
    ::close(ready[1]);
    char end = 0;
    EXPECT_EQ(0, ::read(ready[0], &end, 1));
    ::close(ready[0]);
}

EmbeddedService::~EmbeddedService() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
    ::unlink(kSocket);
}

std::string EmbeddedService::log() const {
    std::ostringstream text;
    text << std::ifstream(kLog).rdbuf();
    return text.str();
}

void set(Fault fault, bool isSet) {
    if (isSet)
        std::ofstream(markerOf(fault)) << "";
    else
        ::unlink(markerOf(fault).c_str());
}

int pushes() { return notedPushes().first; }

std::chrono::microseconds lastDelay() { return std::chrono::microseconds(notedPushes().second); }

} // namespace rlvd
