#include "rlv/service/service-session.h"

#include <cerrno>
#include <exception>
#include <utility>

#include "rlv/service/service-log.h"

namespace rlv {
namespace {

constexpr std::chrono::milliseconds kLookUpTime{2000};
constexpr int kBadText = 2;
constexpr int kFailed = 4;

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
    : context_(context), asker_(asker), lookUpTimeLeft_(kLookUpTime), connection_(context.loop, std::move(fd), *this) {}

Session::~Session() { finish(ConnectionEnd::vanished); }

void Session::finish(ConnectionEnd how) {
    lookUp_.reset();
    const auto number = std::exchange(number_, 0);
    if (number == 0)
        return;
    context_.history.end(number, how);
    RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number), asker_.user, asker_.process,
              how == ConnectionEnd::closed ? "closed" : "vanished");
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

void Session::received(const std::string &packet, std::size_t sizeBytes) {
    const auto request = protocol::decodeRequest(packet);
    if (!request)
        return refuse(EPROTO, "not a request");
    try {
        dispatch(*request, request->text.size() + (sizeBytes - packet.size()));
    } catch (const std::exception &error) {
        fail(error.what());
    }
}

void Session::dispatch(const protocol::Request &request, std::size_t textBytes) {
    using Kind = protocol::Request::Kind;
    if (request.kind == Kind::query)
        return query(request);
    if ((request.kind == Kind::open) == isOpen())
        return refuse(EPROTO, isOpen() ? "opened twice" : "not opened");
    switch (request.kind) {
    case Kind::open:
        return open(request);
    case Kind::commit:
        return commit(request, textBytes);
    default:
        return close();
    }
}

void Session::fail(const char *what) {
    RLVD_ERROR("a request of user %u, process %d failed: %s", asker_.user, asker_.process, what);
    if (isOpen())
        answer({kFailed, std::string("internal error: ") + what});
    else
        refuse(EIO, what);
}

void Session::refuse(int error, const std::string &message) {
    RLVD_ERROR("user %u, process %d is refused: %s", asker_.user, asker_.process, message.c_str());
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::refused, error, 0, message})});
    connection_.shutDown();
    gone();
}

void Session::open(const protocol::Request &request) {
    if (request.number != protocol::kVersion)
        return refuse(EPROTONOSUPPORT, "another version of the protocol");
    number_ = context_.history.open(asker_);
    addresses_.clear();
    lookUpTimeLeft_ = kLookUpTime;
    RLVD_INFO("connection %lld of user %u, process %d: opened", ll(number_), asker_.user, asker_.process);
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::opened, 0, number_, {}})});
}

void Session::close() {
    // Each command was carried out before it was answered: there is nothing left that could fail.
    finish(ConnectionEnd::closed);
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::closed, 0, 0, {}})});
}

void Session::query(const protocol::Request &request) {
    ServiceState state;
    context_.table.describe(state);
    state.simulated = context_.simulated;
    state.serviceId = context_.serviceId;
    state.lastConnection = context_.history.lastNumber();
    state.connections = context_.history.of(asker_, request.number);
    const auto packets = protocol::encodeState(state);
    connection_.reply({packets.begin(), packets.end()});
}

void Session::commit(const protocol::Request &request, std::size_t textBytes) {
    options_ = request.text.substr(0, protocol::kMaxOptionsBytes);
    if (textBytes > protocol::kMaxOptionsBytes)
        return answer({kBadText, "the option text has " + std::to_string(textBytes) + " bytes or more; at most " +
                                     std::to_string(protocol::kMaxOptionsBytes) + " are taken"});
    auto parsed = parseCommand(options_, context_.chainPrefix);
    if (const auto *refusal = std::get_if<Answer>(&parsed))
        return answer(*refusal);
    command_ = std::move(std::get<Command>(parsed));
    resolveAndApply();
}

// Runs again after each look-up, until all names of the command are known.
void Session::resolveAndApply() {
    for (const auto *name : {&command_.sourceName, &command_.destinationName}) {
        if (const auto refusal = resolve(*name))
            return answer(*refusal);
        if (lookUp_)
            return;
    }
    answer(applyToAddresses());
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
        try {
            // A name for which the time ran out was not found to be absent: the answer should say which it was.
            if (found || lookUpTimeLeft_.count() > 0)
                addresses_.emplace(name, found.value_or(Addresses()));
            resolveAndApply();
        } catch (const std::exception &error) {
            fail(error.what());
        }
    };
    lookUp_ = std::make_unique<LookUp>(context_.loop, name, lookUpTimeLeft_, done);
}

Answer Session::applyToAddresses() {
    if (command_.sourceName.empty() && command_.destinationName.empty())
        return context_.table.apply(command_);
    std::vector<Command> commands;
    for (const auto &source : networksOf(command_.sourceName, command_.rule.source, addresses_)) {
        for (const auto &destination : networksOf(command_.destinationName, command_.rule.destination, addresses_)) {
            Command command = command_;
            command.sourceName.clear();
            command.destinationName.clear();
            command.rule.source = source;
            command.rule.destination = destination;
            commands.push_back(std::move(command));
        }
    }
    if (commands.size() > kMaxAddresses)
        return {kFailed, "the names stand for " + std::to_string(commands.size()) + " pairs of addresses; at most " +
                             std::to_string(kMaxAddresses) + " are taken"};
    return context_.table.applyAll(commands);
}

void Session::answer(const Answer &answer) {
    if (answer.code != 0) {
        RLVD_INFO("connection %lld of user %u, process %d: refused (%d, %s): %s", ll(number_), asker_.user,
                  asker_.process, answer.code, answer.message.c_str(), options_.c_str());
        context_.history.addLost(number_, {options_, answer.code, answer.message, true});
    } else if (context_.logAccepted) {
        RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number_), asker_.user, asker_.process,
                  options_.c_str());
    }
    connection_.reply(
        {protocol::encode(protocol::Reply{protocol::Reply::Kind::committed, answer.code, 0, answer.message})});
}

} // namespace rlv
