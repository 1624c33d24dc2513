#include "host/call-watch.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <limits>
#include <string_view>
#include <utility>

#include "host/shortage.h"
#include "mavo/database-failures.h"
#include "vlog/vlog.h"

namespace host {
namespace {

constexpr std::size_t kErrorLineLimit = 1000;
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

// How the plugin logs that a command was refused: this, the code, this, the reason.
constexpr std::string_view kRefusedCommand = "VPK: invokeRLVIptablesCommit Iptables ERROR: ";
constexpr std::string_view kBeforeReason = " : ";

// What iptables answers to a removal of what is not there, and to the making of a chain that is.
constexpr int kNothingToDo = 1;

// A refusal because there is nothing to do leaves what was asked for; any other leaves something else.
bool mayBeThoughtInForce(const rlv::FailedCommand &command) {
    return !command.wasRefused || command.code != kNothingToDo || command.options.compare(0, 3, "-A ") == 0;
}

void judge(const rlv::ConnectionOutcome &connection, Verdict &verdict) {
    for (const auto &command : connection.failed) {
        if (mayBeThoughtInForce(command))
            verdict.notInForce.push_back(command.options + ": " + command.message);
        if (command.wasRefused)
            verdict.refusals.insert(command.message);
        else
            verdict.acceptedThenLost.push_back(command.options);
    }
    if (connection.failedBeyondList > 0)
        verdict.notInForce.push_back(std::to_string(connection.failedBeyondList) + " more commands");
    if (connection.failedBeyondList > 0 && connection.failed.empty())
        verdict.acceptedThenLost.push_back(std::to_string(connection.failedBeyondList) + " commands");
    // One that still seems open got no answer to its end: the service will find out that nobody is there.
    if (connection.end != rlv::ConnectionEnd::closed && connection.end != rlv::ConnectionEnd::interrupted)
        verdict.interruption = "a connection to the traffic-control service broke";
    // Unless its client knows better, see below.
    if (connection.end == rlv::ConnectionEnd::interrupted)
        verdict.interruption = "commands were lost for a reason that may pass" +
                               (connection.failed.empty() ? std::string() : ": " + connection.failed.back().message);
}

} // namespace

std::optional<std::string> errorText(const vlog::Line &line) {
    if (line.priority != VLOG_PRIORITY_ERROR)
        return std::nullopt;
    // "file: function(12) > ", then the colour, then the tag and the message.
    const auto colour = line.text.find(kEscape);
    return withoutColours(colour == std::string::npos ? line.text : line.text.substr(colour));
}

// The service numbers its connections from 1 on after each start, and forgets those that ended well before others.
Verdict judge(const rlv::ServiceState &after, const std::vector<rlv::Opening> &openings) {
    Verdict verdict;
    std::uint64_t last = 0;
    for (const auto &opening : openings) {
        const std::uint64_t number = opening.number;
        verdict.isUnopened = verdict.isUnopened || number == 0;
        if (number == 0)
            continue;
        const auto found = std::find_if(after.connections.begin(), after.connections.end(),
                                        [number](const auto &connection) { return connection.number == number; });
        const bool isKnown = found != after.connections.end();
        if (isKnown && !opening.allInForce)
            judge(*found, verdict);
        if (opening.interruption != rlv::Interruption::none)
            verdict.interruption = rlv::textOf(opening.interruption);
        if ((!isKnown && !opening.allInForce) || number <= last)
            verdict.interruption = "the traffic-control service was started anew during the call";
        last = number;
    }
    return verdict;
}

Remarks remarksOn(const Verdict &verdict, std::vector<std::string> errorLines) {
    const auto isKnownRefusal = [&verdict](const std::string &line) {
        const std::size_t reason = line.find(kBeforeReason);
        return line.compare(0, kRefusedCommand.size(), kRefusedCommand) == 0 && reason != std::string::npos &&
               verdict.refusals.count(line.substr(reason + kBeforeReason.size())) != 0;
    };
    errorLines.erase(std::remove_if(errorLines.begin(), errorLines.end(), isKnownRefusal), errorLines.end());
    Remarks remarks{std::move(errorLines), {}};
    for (const auto &line : verdict.notInForce)
        remarks.notes.push_back("not in force: " + line);
    if (!verdict.unknown.empty())
        remarks.notes.push_back("whether all is in force is not known: " + verdict.unknown);
    return remarks;
}

void CallWatch::prepare() {
    countShortages();
    rlv::setFailureCount(mavo::database::failedStatements);
}

void CallWatch::endInChild() noexcept { vlog::setObserver({}); }

CallWatch::CallWatch() : failedStatementsBefore_(mavo::database::failedStatements()), shortagesBefore_(shortages()) {
    static_cast<void>(rlv::takeOpenings());
    vlog::setObserver([this](const vlog::Line &line) {
        auto text = errorText(line);
        if (text && errorLines_.size() < kErrorLineLimit)
            errorLines_.push_back(std::move(*text));
        else if (text)
            ++errorLinesLeftOut_;
    });
}

CallWatch::~CallWatch() { vlog::setObserver({}); }

bool CallWatch::databaseFailed() const { return mavo::database::failedStatements() != failedStatementsBefore_; }

bool CallWatch::lackedMemory() const { return shortages() != shortagesBefore_; }

std::vector<std::string> CallWatch::errorLines() const {
    auto lines = errorLines_;
    if (errorLinesLeftOut_ > 0)
        lines.push_back(std::to_string(errorLinesLeftOut_) + " more lines");
    return lines;
}

Verdict CallWatch::verdict() const {
    const auto openings = rlv::takeOpenings();
    if (std::all_of(openings.begin(), openings.end(), [](const auto &one) { return one.allInForce; }))
        return {};
    std::uint64_t first = std::numeric_limits<std::uint64_t>::max();
    for (const auto &one : openings)
        first = std::min(first, std::max<std::uint64_t>(one.number, 1));
    try {
        return judge(rlv::query(first - 1, kQueryTimeout), openings);
    } catch (const std::exception &error) {
        Verdict verdict;
        verdict.unknown = error.what();
        const bool wasUsed =
            std::any_of(openings.begin(), openings.end(), [](const auto &one) { return one.number != 0; });
        if (wasUsed)
            verdict.interruption = error.what();
        verdict.isUnopened = !wasUsed;
        return verdict;
    }
}

} // namespace host
