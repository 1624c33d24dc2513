#include "host/call-watch.h"

#include <cstdint>
#include <exception>
#include <limits>

#include "vlog/vlog.h"

namespace host {
namespace {

constexpr std::size_t kErrorLineLimit = 1000;
// A query tells of connections above a number; none is above this one.
constexpr std::uint64_t kNoConnections = std::numeric_limits<std::uint64_t>::max();
constexpr char kEscape = '\033';

std::string withoutColours(const std::string &text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.compare(at, 2, "\033[") == 0)
            at = text.find('m', at);
        else
            plain += text[at];
        if (at == std::string::npos)
            break;
    }
    return plain;
}

bool mayBeThoughtInForce(const rlv::LostCommand &command) {
    return !command.refusedAtOnce || command.options.compare(0, 3, "-A ") == 0;
}

void judge(const rlv::ConnectionOutcome &connection, std::vector<std::string> &lines) {
    for (const auto &command : connection.lost) {
        if (mayBeThoughtInForce(command))
            lines.push_back(command.options + ": " + command.message);
    }
    if (connection.lostBeyondList > 0)
        lines.push_back(std::to_string(connection.lostBeyondList) + " more commands");
    if (connection.end == rlv::ConnectionEnd::vanished)
        lines.emplace_back("a connection to the traffic-control service broke: what it said to the plugin is void");
}

} // namespace

std::optional<std::string> errorText(const vlog::Line &line) {
    if (line.priority != VLOG_PRIORITY_ERROR)
        return std::nullopt;
    // "file: function(12) > ", then the colour, then the tag and the message.
    const auto colour = line.text.find(kEscape);
    return withoutColours(colour == std::string::npos ? line.text : line.text.substr(colour));
}

std::vector<std::string> notInForce(const rlv::ServiceState &after, std::uint64_t sinceConnection) {
    std::vector<std::string> lines;
    for (const auto &connection : after.connections) {
        if (connection.number > sinceConnection)
            judge(connection, lines);
    }
    return lines;
}

CallWatch::CallWatch(Scope scope) {
    vlog::setObserver([this](const vlog::Line &line) {
        auto text = errorText(line);
        if (text && errorLines_.size() < kErrorLineLimit)
            errorLines_.push_back(std::move(*text));
        else if (text)
            ++errorLinesLeftOut_;
    });
    if (scope == Scope::logOnly)
        return;
    try {
        before_ = rlv::query(kNoConnections);
    } catch (const std::exception &error) {
        problem_ = error.what();
    }
}

CallWatch::~CallWatch() { vlog::setObserver({}); }

void CallWatch::askService(std::vector<std::string> &lines) const {
    auto after = rlv::query(before_->lastConnection);
    std::uint64_t since = before_->lastConnection;
    if (after.serviceId != before_->serviceId) {
        lines.emplace_back("the traffic-control service was started anew during the call: what it had accepted before "
                           "may be lost");
        since = 0; // it counts its connections from 1 again
        after = rlv::query(since);
    }
    const auto lost = notInForce(after, since);
    lines.insert(lines.end(), lost.begin(), lost.end());
}

void CallWatch::report(mavo::rmi::Reply &reply) {
    reply.errorLines = errorLines_;
    if (errorLinesLeftOut_ > 0)
        reply.errorLines.push_back(std::to_string(errorLinesLeftOut_) + " more lines");
    if (before_) {
        try {
            askService(reply.notInForce);
        } catch (const std::exception &error) {
            reply.notInForce.push_back(std::string("not known: ") + error.what());
        }
    } else if (!problem_.empty()) {
        reply.notInForce.push_back("not known: " + problem_);
    }
}

} // namespace host
