// What the service's parts need around them, within the test.
#ifndef TESTS_PLATFORM_RLV_SERVICE_SERVICE_PARTS_H
#define TESTS_PLATFORM_RLV_SERVICE_SERVICE_PARTS_H

#include <cerrno>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "rlv/service/service-context.h"
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

namespace parts {

using Texts = std::vector<std::string>;
using Milliseconds = std::chrono::milliseconds;

// Runs the loop until that holds, asked after each millisecond. False when the deadline passed.
inline bool runUntil(support::EventLoop &loop, const std::function<bool()> &holds,
                     Milliseconds deadline = Milliseconds(10'000)) {
    const auto end = support::EventLoop::Clock::now() + deadline;
    while (!holds() && support::EventLoop::Clock::now() < end) {
        loop.after(Milliseconds(1), [&loop] { loop.stop(); });
        loop.run();
    }
    return holds();
}

// All that is due now, and what that makes due at once.
inline void runDue(support::EventLoop &loop) {
    for (int i = 0; i < 5; ++i) {
        loop.after(Milliseconds(0), [&loop] { loop.stop(); });
        loop.run();
    }
}

// The lines that are logged while it lives; of errors with "E " before.
class Log {
public:
    Log() {
        vlog::setObserver([this](const vlog::Line &line) {
            lines.push_back((line.priority == VLOG_PRIORITY_ERROR ? "E " : "") + line.text);
        });
    }
    ~Log() { vlog::setObserver({}); }
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    Texts take() { return std::exchange(lines, {}); }

    Texts lines;
};

// A simulated table that notes what it is asked, and fails or reports what the test says.
class ToldTable : public rlv::Table {
public:
    Texts calls;
    std::map<std::string, int> failing; // an errno for each call that fails
    std::optional<rlv::PushReport> pushed;
    rlv::PushReport discarded;
    rlv::MendReport mended;
    rlv::Disturbance disturbance; // taken once
    int takings = 0;
    std::function<void()> whileMending;
    std::optional<int> notices;
    bool isKnown = false;
    bool isMending = true;

    void open() override {
        note("open");
        table_->open();
    }
    rlv::Answer apply(const std::vector<rlv::Command> &commands, const std::string &options) override {
        note("apply", " " + options);
        return table_->apply(commands, options);
    }
    std::size_t room() const override { return table_->room(); }
    rlv::PushReport push() override {
        note("push");
        auto report = table_->push();
        return pushed ? *pushed : report;
    }
    rlv::PushReport discard() override {
        note("discard");
        table_->discard();
        return discarded;
    }
    void describe(rlv::ServiceState &state) override {
        note("describe");
        table_->describe(state);
    }
    void look(bool reading, const std::function<void(const rlv::Ruleset &)> &visit) override {
        note("look", reading ? " reading" : "");
        table_->look(reading, visit);
    }
    void remember() override {
        note("remember");
        isKnown = true;
    }
    void forget() override {
        note("forget");
        isKnown = false;
    }
    bool remembers() const override { return isKnown; }
    void setMending(bool mending) override { isMending = mending; }
    rlv::MendReport mend() override {
        note("mend");
        if (whileMending)
            whileMending();
        return mended;
    }
    std::optional<int> listen() override {
        note("listen");
        return notices;
    }
    rlv::Disturbance takeDisturbance() override {
        ++takings;
        return std::exchange(disturbance, {});
    }
    rlv::Answer removeAll() override {
        note("removeAll");
        return table_->removeAll();
    }

    Texts takeCalls() { return std::exchange(calls, {}); }

private:
    void note(const std::string &call, const std::string &of = "") {
        calls.push_back(call + of);
        if (const auto failure = failing.find(call); failure != failing.end())
            throw std::system_error(failure->second, std::generic_category(), "told to");
    }

    std::unique_ptr<rlv::Table> table_ = rlv::makeSimulatedTable("VPK-");
};

// All that a session and its parts share.
struct Around {
    explicit Around(rlv::NameOptions options = {}) : names(std::move(options)) {}

    rlv::NameOptions names;
    support::EventLoop loop;
    ToldTable table;
    rlv::ServiceContext context{loop,
                                table,
                                rlv::TableTurns(loop),
                                rlv::ConnectionHistory(),
                                {loop, names},
                                {loop, table, true},
                                "VPK-",
                                Milliseconds(10'000),
                                true,
                                false,
                                false,
                                77};
};

} // namespace parts

#endif
