#include "rlv/service/service-session.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <new>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "rlv/command-form.h"
#include "rlv/service/served-tables.h"
#include "rlv/service/service-log.h"

namespace rlv {
namespace {

constexpr int kBadText = 2;
constexpr int kFailed = 4;
constexpr std::uint64_t kUnknownInterruption = 255;

const char *textOf(ConnectionEnd end) {
    switch (end) {
    case ConnectionEnd::closed:
        return "closed";
    case ConnectionEnd::interrupted:
        return "interrupted";
    default:
        return "vanished";
    }
}

long long ll(std::uint64_t number) { return static_cast<long long>(number); }

// What of ours may still decide about packets, or why that is not known; empty when nothing does. Chains that rules of
// others jump to may be left, without rules.
std::string leftIn(Table &table) {
    std::string left;
    const auto add = [&](const std::string &text) { left += (left.empty() ? "" : ", ") + text; };
    try {
        ServiceState state;
        table.describe(state);
        for (const HookState &hook : state.hooks)
            add("-A " + hook.chain + " -j " + hook.target);
        for (const ChainState &chain : state.chains) {
            if (chain.rules > 0)
                add("rules in " + chain.name);
        }
        return left;
    } catch (const std::exception &error) {
        return std::string("the tables cannot be read: ") + error.what();
    }
}

// Or they would be sent with the next look.
void discardCommands(Table &table) {
    try {
        table.discard();
    } catch (const std::exception &error) {
        RLVD_ERROR("what was to be taken out cannot be discarded: %s", error.what());
    }
}

// Takes hooks and chains out of the kernel, and what should stand is forgotten with them. Where anything is left all of
// it is put back and goes on being defended, or a removal that fails would leave rules that anybody can flush
// unnoticed: the same where others put something back as soon as the kernel had taken it out.
Answer removeTables(ServiceContext &context) {
    Answer answer;
    std::string left;
    try {
        answer = context.table.removeAll();
        left = leftIn(context.table);
    } catch (const std::exception &error) {
        answer = {kFailed, error.what()};
        left = "all";
        discardCommands(context.table);
    }
    if (left.empty())
        context.drift.forget();
    else
        context.drift.endConnection(false);
    return answer.code == 0 && !left.empty() ? Answer{kFailed, "not all is out: " + left} : answer;
}

} // namespace

Session::Session(ServiceContext &context, support::UniqueFd fd, const support::Peer &peer)
    : context_(context), peer_(peer), delivery_(context), commands_(1),
      names_(context, [this](const auto &name, const auto &result) { lookedUp(name, result); }),
      stream_(context.loop, std::move(fd), *this) {}

Session::~Session() { finish(ConnectionEnd::vanished); }

void Session::finish(ConnectionEnd how) {
    names_.stop();
    rest_ = {};
    context_.loop.cancel(std::exchange(waitTimer_, 0));
    if (const auto number = std::exchange(number_, 0); number != 0) {
        if (how == ConnectionEnd::vanished)
            delivery_.interrupt("the client vanished");
        context_.history.end(number, how);
        RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number), peer_.user, peer_.process, textOf(how));
    }
    context_.turns.leave(*this);
}

void Session::end(const char *reason) {
    RLVD_INFO("a client of user %u, process %d is cut off: %s", peer_.user, peer_.process, reason);
    stream_.shutDown();
    gone();
}

void Session::gone() {
    finish(ConnectionEnd::vanished);
    if (const auto ended = std::exchange(ended_, nullptr))
        ended();
}

void Session::received(std::string_view packet, std::size_t sizeBytes) {
    try {
        if (!protocol::decodeRequest(packet, request_))
            return refuse(EPROTO, "not a request");
        if (asked_)
            asked_();
        dispatch(request_.text.size() + (sizeBytes - packet.size()));
    } catch (const std::exception &error) {
        refuse(EIO, error.what());
    }
}

void Session::dispatch(std::size_t textBytes) {
    using Kind = protocol::Request::Kind;
    if (request_.kind == Kind::query)
        return query();
    if (request_.kind == Kind::names)
        return names(textBytes);
    if (request_.kind == Kind::compare)
        return compare(textBytes);
    if (request_.kind == Kind::watch && !isOpen())
        return watch();
    if (request_.kind == Kind::remove && !isOpen())
        return wait();
    const bool opens = request_.kind == Kind::open || request_.kind == Kind::rehearse;
    if (opens == isOpen())
        return refuse(EPROTO, isOpen() ? "opened twice" : "not opened");
    switch (request_.kind) {
    case Kind::open:
    case Kind::rehearse:
        return wait();
    case Kind::commit:
        return runCommand(textBytes);
    case Kind::list:
        return runList(textBytes);
    default:
        return close();
    }
}

void Session::refuse(int error, const std::string &message) {
    RLVD_ERROR("user %u, process %d is refused: %s", peer_.user, peer_.process, message.c_str());
    stream_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::refused, error, 0, message})});
    stream_.shutDown();
    gone();
}

// Until its turn comes, the client is in the middle of a request, and nothing more is read from it.
void Session::wait() {
    const bool isRemoval = request_.kind == protocol::Request::Kind::remove;
    if (isRemoval && peer_.user != 0 && peer_.user != ::geteuid())
        return refuse(EACCES, "only root may have the tables taken out");
    if (isRemoval && !asksFor(request_, ServedTables::here(context_.chainPrefix, context_.simulated)))
        return refuse(ENOENT, "these tables are not served here");
    if (!isRemoval && request_.number != protocol::kVersion)
        return refuse(EPROTONOSUPPORT, "another version of the protocol");
    waitTimer_ = context_.loop.after(context_.maxWait, [this] {
        waitTimer_ = 0;
        refuse(ETIMEDOUT, "another connection has been open for too long");
    });
    context_.turns.enter(*this);
}

void Session::haveTurn() {
    context_.loop.cancel(std::exchange(waitTimer_, 0));
    try {
        if (request_.kind == protocol::Request::Kind::remove)
            remove();
        else
            open();
    } catch (const std::system_error &error) {
        refuse(error.code().value(), error.what());
    } catch (const std::exception &error) {
        refuse(EIO, error.what());
    }
}

void Session::open() {
    context_.table.open();
    number_ = context_.history.open(peer_);
    delivery_.open(number_, request_.kind == protocol::Request::Kind::rehearse);
    names_.open();
    RLVD_INFO("connection %lld of user %u, process %d: opened%s", ll(number_), peer_.user, peer_.process,
              delivery_.isRehearsal() ? ", to rehearse" : "");
    stream_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::opened, 0, number_, {}})});
}

void Session::remove() {
    const Answer answer = removeTables(context_);
    context_.turns.leave(*this);
    RLVD_INFO("hooks and chains taken out for user %u, process %d: %s", peer_.user, peer_.process,
              answer.code == 0 ? "all" : answer.message.c_str());
    stream_.reply(
        {protocol::encode(protocol::Reply{protocol::Reply::Kind::committed, answer.code, 0, answer.message})});
}

void Session::watch() {
    isWatching_ = true;
    stream_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::watched, 0, context_.serviceId, {}})});
}

// One who does not read what he was told before is cut off soon, and asks again.
void Session::tellUnjudged() {
    if (isWatching_ && !stream_.stuck())
        stream_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::watched, 1, context_.serviceId, {}})});
}

void Session::close() {
    const auto interruption = static_cast<Interruption>(std::min<std::uint64_t>(request_.number, kUnknownInterruption));
    const bool isInterrupted = interruption != Interruption::none;
    std::int32_t code = ECANCELED;
    if (isInterrupted) {
        RLVD_ERROR("connection %lld of user %u, process %d is interrupted: %s", ll(number_), peer_.user, peer_.process,
                   textOf(interruption));
        delivery_.interrupt(textOf(interruption));
    } else {
        code = delivery_.close() ? 0 : EIO;
    }
    const std::uint64_t failed = context_.history.failedOn(number_);
    finish(isInterrupted || delivery_.lossMayPass() ? ConnectionEnd::interrupted : ConnectionEnd::closed);
    stream_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::closed, code, failed, {}})});
}

void Session::query() {
    ServiceState state;
    context_.table.describe(state);
    state.simulated = context_.simulated;
    state.serviceId = context_.serviceId;
    state.connections = context_.history.of(peer_, request_.number);
    context_.drift.takeNotices();
    state.drift = context_.drift.state();
    const auto packets = protocol::encodeState(state);
    stream_.reply({packets.begin(), packets.end()});
}

// An announcement may come in several requests; what is beyond the limit is looked up when its command comes.
void Session::names(std::size_t textBytes) {
    using About = protocol::NamesRequest::About;
    const auto asked = protocol::decodeNamesRequest(request_);
    if (!asked || textBytes != request_.text.size())
        return refuse(EPROTO, "not a request about names");
    const std::size_t room = kMaxKeptNames - std::min(kMaxKeptNames, announced_.size());
    announced_.insert(announced_.end(), asked->names.begin(),
                      asked->names.begin() + static_cast<std::ptrdiff_t>(std::min(room, asked->names.size())));
    NamesState state;
    if (!asked->moreFollow && context_.resolveNames) {
        if (asked->about == About::announce)
            context_.names.announce(announced_);
        else if (asked->about == About::announceAll)
            context_.names.announceAll(announced_);
        else if (asked->about == About::retain)
            context_.names.retain(announced_);
        announced_.clear();
        state = context_.names.state(asked->about == About::list);
    }
    state.serviceId = context_.serviceId;
    const auto packets = protocol::encodeState(state);
    stream_.reply({packets.begin(), packets.end()});
}

// What is wanted comes in any number of requests, of which the last is answered.
void Session::compare(std::size_t textBytes) {
    if (textBytes != request_.text.size() || !protocol::isCommandList(request_.text))
        return refuse(EPROTO, "not a list of wanted rules");
    if (!wanted_)
        wanted_ = std::make_unique<WantedRules>(context_);
    for (std::string_view rest = request_.text; !rest.empty();) {
        if (!wanted_->add(std::string(protocol::takeCommand(rest))))
            return refuse(EMSGSIZE, "more wanted rules than a table takes");
    }
    if ((request_.number & protocol::kMoreFollow) != 0)
        return stream_.goOn();
    Comparison comparison = std::exchange(wanted_, nullptr)->compare((request_.number & protocol::kReading) != 0);
    comparison.simulated = context_.simulated;
    const auto packets = protocol::encodeState(comparison);
    stream_.reply({packets.begin(), packets.end()});
}

// A refusal is a command's answer. What the service itself lacks for one (memory, most likely) is none: a client that
// passes over a refusal, as one may that removes on the off chance, would go on with half of what it means to send.
// So that is the end of the connection, which counts as interrupted. A command of a list whose trouble is the kernel's
// has its answer already: it counts as lost.
template <typename Step> void Session::guarded(Step step) {
    constexpr const char *kTrouble = "internal error: ";
    try {
        step();
    } catch (const std::bad_alloc &error) {
        refuse(ENOMEM, std::string(kTrouble) + error.what());
    } catch (const std::exception &error) {
        if (request_.kind == protocol::Request::Kind::list)
            settle({kFailed, std::string(kTrouble) + error.what()});
        else
            refuse(EIO, std::string(kTrouble) + error.what());
    }
}

void Session::runCommand(std::size_t textBytes) {
    if (textBytes <= protocol::kMaxOptionsBytes)
        return guarded([this] { start(request_.text); });
    options_ = request_.text.substr(0, protocol::kMaxOptionsBytes);
    delivery_.announce(options_);
    settle({kBadText, "the option text has " + std::to_string(textBytes) + " bytes or more; at most " +
                          std::to_string(protocol::kMaxOptionsBytes) + " are taken"});
}

void Session::runList(std::size_t textBytes) {
    if (textBytes != request_.text.size() || !protocol::isCommandList(request_.text))
        return refuse(EPROTO, "not a list of commands");
    rest_ = request_.text;
    runRest();
}

// Goes on until a look-up has to be waited for, or all is done.
void Session::runRest() {
    while (!rest_.empty() && !names_.isLookingUp()) {
        const auto options = protocol::takeCommand(rest_);
        guarded([&] { start(options); });
    }
    if (!names_.isLookingUp())
        stream_.goOn();
}

void Session::start(std::string_view options) {
    options_ = options;
    delivery_.announce(options_);
    auto parsed = parseCommand(options_, context_.chainPrefix);
    if (const auto *refusal = std::get_if<Answer>(&parsed))
        return settle(*refusal);
    commands_.resize(1);
    commands_.front() = std::move(std::get<Command>(parsed));
    resolveAndApply();
}

// Runs again after each look-up, until all names of the command are known.
void Session::resolveAndApply() {
    if (const auto refusal = names_.resolve(commands_))
        return settle(*refusal);
    if (!names_.isLookingUp())
        settle(context_.table.apply(commands_, options_));
}

void Session::lookedUp(const std::string &name, const LookUpResult &result) {
    guarded([&] {
        names_.learn(name, result);
        resolveAndApply();
    });
    if (request_.kind == protocol::Request::Kind::list)
        runRest();
}

void Session::settle(const Answer &answer) {
    const bool isAnswered = request_.kind == protocol::Request::Kind::commit;
    if (answer.code == 0) {
        delivery_.accepted();
        if (context_.logAccepted)
            RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number_), peer_.user, peer_.process,
                      options_.c_str());
    } else if (isAnswered || delivery_.isRehearsal()) {
        RLVD_INFO("connection %lld of user %u, process %d: refused (%d, %s): %s", ll(number_), peer_.user,
                  peer_.process, answer.code, answer.message.c_str(), options_.c_str());
        context_.history.add(number_, {options_, answer.code, answer.message, true});
    } else {
        delivery_.lose({options_, answer.code, answer.message});
    }
    if (isAnswered)
        reply(answer);
}

void Session::reply(const Answer &answer) {
    const std::uint64_t room = isAppending(options_) ? context_.table.room() : 0;
    stream_.reply(
        {protocol::encode(protocol::Reply{protocol::Reply::Kind::committed, answer.code, room, answer.message})});
}

} // namespace rlv
