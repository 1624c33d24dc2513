#include "rlv/service/service-session.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "rlv/command-form.h"
#include "rlv/service/service-log.h"

namespace rlv {
namespace {

constexpr std::chrono::milliseconds kLookUpTime{2000};
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

Answer notFound(const std::string &name, const std::string &why = {}) {
    return {kBadText, "host/network `" + name + "' not found" + why};
}

// An absent name stands for the address that the rule has already, which may be none.
std::vector<std::optional<Network>> networksOf(const std::string &name, const std::optional<Network> &given,
                                               const std::map<std::string, Addresses> &known) {
    if (name.empty())
        return {given};
    std::vector<std::optional<Network>> networks;
    for (const auto address : known.at(name))
        networks.push_back(Network{address, 32});
    return networks;
}

} // namespace

Session::Session(ServiceContext &context, support::UniqueFd fd, const Asker &asker)
    : context_(context), asker_(asker), delivery_(context), commands_(1), lookUpTimeLeft_(kLookUpTime),
      connection_(context.loop, std::move(fd), *this) {}

Session::~Session() { finish(ConnectionEnd::vanished); }

void Session::finish(ConnectionEnd how) {
    lookUp_.reset();
    rest_ = {};
    context_.loop.cancel(std::exchange(waitTimer_, 0));
    if (const auto number = std::exchange(number_, 0); number != 0) {
        if (how == ConnectionEnd::vanished)
            delivery_.interrupt("the client vanished");
        context_.history.end(number, how);
        RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number), asker_.user, asker_.process, textOf(how));
    }
    context_.turns.leave(*this);
}

void Session::end(const char *reason) {
    RLVD_INFO("a client of user %u, process %d is cut off: %s", asker_.user, asker_.process, reason);
    connection_.shutDown();
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
        dispatch(request_.text.size() + (sizeBytes - packet.size()));
    } catch (const std::exception &error) {
        refuse(EIO, error.what());
    }
}

void Session::dispatch(std::size_t textBytes) {
    using Kind = protocol::Request::Kind;
    if (request_.kind == Kind::query)
        return query();
    if ((request_.kind == Kind::open) == isOpen())
        return refuse(EPROTO, isOpen() ? "opened twice" : "not opened");
    switch (request_.kind) {
    case Kind::open:
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
    RLVD_ERROR("user %u, process %d is refused: %s", asker_.user, asker_.process, message.c_str());
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::refused, error, 0, message})});
    connection_.shutDown();
    gone();
}

// Until its turn comes, the client is in the middle of a request, and nothing more is read from it.
void Session::wait() {
    if (request_.number != protocol::kVersion)
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
        open();
    } catch (const std::system_error &error) {
        refuse(error.code().value(), error.what());
    } catch (const std::exception &error) {
        refuse(EIO, error.what());
    }
}

void Session::open() {
    context_.table.open();
    number_ = context_.history.open(asker_);
    delivery_.open(number_);
    addresses_.clear();
    lookUpTimeLeft_ = kLookUpTime;
    RLVD_INFO("connection %lld of user %u, process %d: opened", ll(number_), asker_.user, asker_.process);
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::opened, 0, number_, {}})});
}

void Session::close() {
    const auto interruption = static_cast<Interruption>(std::min<std::uint64_t>(request_.number, kUnknownInterruption));
    const bool isInterrupted = interruption != Interruption::none;
    std::int32_t code = ECANCELED;
    if (isInterrupted) {
        RLVD_ERROR("connection %lld of user %u, process %d is interrupted: %s", ll(number_), asker_.user,
                   asker_.process, textOf(interruption));
        delivery_.interrupt(textOf(interruption));
    } else {
        code = delivery_.close() ? 0 : EIO;
    }
    const std::uint64_t lost = context_.history.lostOn(number_);
    finish(isInterrupted ? ConnectionEnd::interrupted : ConnectionEnd::closed);
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::closed, code, lost, {}})});
}

void Session::query() {
    ServiceState state;
    context_.table.describe(state);
    state.simulated = context_.simulated;
    state.serviceId = context_.serviceId;
    state.lastConnection = context_.history.lastNumber();
    state.connections = context_.history.of(asker_, request_.number);
    const auto packets = protocol::encodeState(state);
    connection_.reply({packets.begin(), packets.end()});
}

// What goes wrong with a command is its answer.
template <typename Step> void Session::guarded(Step step) {
    try {
        step();
    } catch (const std::exception &error) {
        settle({kFailed, std::string("internal error: ") + error.what()});
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
    while (!rest_.empty() && !lookUp_) {
        const auto options = protocol::takeCommand(rest_);
        guarded([&] { start(options); });
    }
    if (!lookUp_)
        connection_.goOn();
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
    for (const auto *name : {&commands_.front().sourceName, &commands_.front().destinationName}) {
        if (const auto refusal = resolve(*name))
            return settle(*refusal);
        if (lookUp_)
            return;
    }
    settle(applyToAddresses());
}

// A refusal, or nothing: then the name is known, or a look-up under way.
std::optional<Answer> Session::resolve(const std::string &name) {
    if (name.empty())
        return std::nullopt;
    if (!context_.resolveNames)
        return notFound(name, ": this service looks up no names (--no-resolve)");
    const auto known = addresses_.find(name);
    if (known != addresses_.end())
        return known->second.empty() ? std::make_optional(notFound(name)) : std::nullopt;
    if (lookUpTimeLeft_.count() <= 0)
        return notFound(name, ": the look-ups of this connection took more than 2 seconds");
    lookUp(name);
    return std::nullopt;
}

void Session::lookUp(const std::string &name) {
    const auto start = support::EventLoop::Clock::now();
    const auto done = [this, name, start](const std::optional<Addresses> &found) {
        const auto taken = support::EventLoop::Clock::now() - start;
        lookUpTimeLeft_ -= std::chrono::ceil<std::chrono::milliseconds>(taken);
        lookUp_.reset();
        guarded([&] {
            keepAddresses(name, found);
            resolveAndApply();
        });
        if (request_.kind == protocol::Request::Kind::list)
            runRest();
    };
    lookUp_ = std::make_unique<LookUp>(context_.loop, name, lookUpTimeLeft_, done);
}

// A name for which the time ran out was not found to be absent: the answer should say which it was.
void Session::keepAddresses(const std::string &name, const std::optional<Addresses> &found) {
    if (found || lookUpTimeLeft_.count() > 0)
        addresses_.emplace(name, found.value_or(Addresses()));
}

Answer Session::applyToAddresses() {
    if (commands_.front().sourceName.empty() && commands_.front().destinationName.empty())
        return context_.table.apply(commands_, options_);
    const Command given = std::exchange(commands_, {}).front();
    for (const auto &source : networksOf(given.sourceName, given.rule.source, addresses_)) {
        for (const auto &destination : networksOf(given.destinationName, given.rule.destination, addresses_)) {
            Command &command = commands_.emplace_back(given);
            command.sourceName.clear();
            command.destinationName.clear();
            command.rule.source = source;
            command.rule.destination = destination;
        }
    }
    if (commands_.size() > kMaxAddresses)
        return {kFailed, "the names stand for " + std::to_string(commands_.size()) + " pairs of addresses; at most " +
                             std::to_string(kMaxAddresses) + " are taken"};
    return context_.table.apply(commands_, options_);
}

void Session::settle(const Answer &answer) {
    const bool isAnswered = request_.kind == protocol::Request::Kind::commit;
    if (answer.code == 0) {
        delivery_.accepted();
        if (context_.logAccepted)
            RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number_), asker_.user, asker_.process,
                      options_.c_str());
    } else if (isAnswered) {
        RLVD_INFO("connection %lld of user %u, process %d: refused (%d, %s): %s", ll(number_), asker_.user,
                  asker_.process, answer.code, answer.message.c_str(), options_.c_str());
        context_.history.addLost(number_, {options_, answer.code, answer.message, true});
    } else {
        delivery_.lose({options_, answer.code, answer.message, false});
    }
    if (isAnswered)
        reply(answer);
}

void Session::reply(const Answer &answer) {
    const std::uint64_t room = isAppending(options_) ? context_.table.room() : 0;
    connection_.reply(
        {protocol::encode(protocol::Reply{protocol::Reply::Kind::committed, answer.code, room, answer.message})});
}

} // namespace rlv
