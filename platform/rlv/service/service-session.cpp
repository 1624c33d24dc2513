#include "rlv/service/service-session.h"

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
constexpr std::chrono::milliseconds kTurnTime{10'000};
// Leaves the kernel some time of the 20 ms in which an added rule is to be in force.
constexpr std::chrono::milliseconds kPushDelay{15};
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
    texts_.clear();
    context_.loop.cancel(std::exchange(waitTimer_, 0));
    const auto number = number_;
    if (number != 0) {
        if (how == ConnectionEnd::vanished && isHeld_)
            drop();
        else
            push();
        number_ = 0;
        context_.history.end(number, how);
        RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number), asker_.user, asker_.process,
                  how == ConnectionEnd::closed ? "closed" : "vanished");
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

void Session::received(const std::string &packet, std::size_t sizeBytes) {
    const auto request = protocol::decodeRequest(packet);
    if (!request)
        return refuse(EPROTO, "not a request");
    try {
        dispatch(*request, request->text.size() + (sizeBytes - packet.size()));
    } catch (const std::exception &error) {
        refuse(EIO, error.what());
    }
}

void Session::dispatch(const protocol::Request &request, std::size_t textBytes) {
    using Kind = protocol::Request::Kind;
    if (request.kind == Kind::query)
        return query(request);
    if ((request.kind == Kind::open) == isOpen())
        return refuse(EPROTO, isOpen() ? "opened twice" : "not opened");
    if (request.kind == Kind::open)
        return open(request);
    if (request.kind == Kind::close)
        return close();
    if (request.kind == Kind::commit) {
        // One that is too long is not run, but named.
        options_ = request.text.substr(0, protocol::kMaxOptionsBytes);
        isReplyWanted_ = true;
        if (textBytes > protocol::kMaxOptionsBytes)
            return settle({kBadText, "the option text has " + std::to_string(textBytes) + " bytes or more; at most " +
                                         std::to_string(protocol::kMaxOptionsBytes) + " are taken"});
        return run({request.text}, true);
    }
    auto texts = protocol::splitTexts(request.text);
    if (!texts || textBytes != request.text.size())
        return refuse(EPROTO, "not a list of commands");
    run({std::make_move_iterator(texts->begin()), std::make_move_iterator(texts->end())}, false);
}

void Session::refuse(int error, const std::string &message) {
    RLVD_ERROR("user %u, process %d is refused: %s", asker_.user, asker_.process, message.c_str());
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::refused, error, 0, message})});
    connection_.shutDown();
    gone();
}

// Until its turn comes, the client is in the middle of a request, and nothing more is read from it.
void Session::open(const protocol::Request &request) {
    if (request.number != protocol::kVersion)
        return refuse(EPROTONOSUPPORT, "another version of the protocol");
    waitTimer_ = context_.loop.after(kTurnTime, [this] { giveUpWaiting(); });
    context_.turns.enter(*this);
}

void Session::giveUpWaiting() {
    waitTimer_ = 0;
    refuse(ETIMEDOUT, "another connection has been open for too long");
}

void Session::haveTurn() {
    context_.loop.cancel(std::exchange(waitTimer_, 0));
    try {
        context_.table.open();
    } catch (const std::system_error &error) {
        return refuse(error.code().value(), error.what());
    } catch (const std::exception &error) {
        return refuse(EIO, error.what());
    }
    number_ = context_.history.open(asker_);
    isHeld_ = hasUnsent_ = hasLost_ = false;
    addresses_.clear();
    lookUpTimeLeft_ = kLookUpTime;
    RLVD_INFO("connection %lld of user %u, process %d: opened", ll(number_), asker_.user, asker_.process);
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::opened, 0, number_, {}})});
}

void Session::close() {
    push();
    const std::int32_t code = hasLost_ ? EIO : 0;
    finish(ConnectionEnd::closed);
    connection_.reply({protocol::encode(protocol::Reply{protocol::Reply::Kind::closed, code, 0, {}})});
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

// What goes wrong with a command is its answer.
template <typename Step> void Session::guarded(Step step) {
    try {
        step();
    } catch (const std::exception &error) {
        settle({kFailed, std::string("internal error: ") + error.what()});
    }
}

void Session::run(std::deque<std::string> texts, bool isReplyWanted) {
    texts_ = std::move(texts);
    isReplyWanted_ = isReplyWanted;
    runNext();
}

// Goes on until a look-up has to be waited for, or all is done.
void Session::runNext() {
    while (!texts_.empty() && !lookUp_) {
        options_ = std::move(texts_.front());
        texts_.pop_front();
        guarded([this] { start(); });
    }
    if (!lookUp_ && !isReplyWanted_ && isOpen())
        connection_.reply({}); // reads on
}

void Session::start() {
    if (!isHeld_ && isRemoving(options_)) {
        push();
        isHeld_ = true;
    }
    auto parsed = parseCommand(options_, context_.chainPrefix);
    if (const auto *refusal = std::get_if<Answer>(&parsed))
        return settle(*refusal);
    command_ = std::move(std::get<Command>(parsed));
    resolveAndApply();
}

// Runs again after each look-up, until all names of the command are known.
void Session::resolveAndApply() {
    for (const auto *name : {&command_.sourceName, &command_.destinationName}) {
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
        // A name for which the time ran out was not found to be absent: the answer should say which it was.
        if (found || lookUpTimeLeft_.count() > 0)
            addresses_.emplace(name, found.value_or(Addresses()));
        guarded([this] { resolveAndApply(); });
        if (!lookUp_)
            runNext();
    };
    lookUp_ = std::make_unique<LookUp>(context_.loop, name, lookUpTimeLeft_, done);
}

Answer Session::applyToAddresses() {
    if (command_.sourceName.empty() && command_.destinationName.empty())
        return context_.table.apply({command_}, options_);
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
    return context_.table.apply(commands, options_);
}

void Session::settle(const Answer &answer) {
    if (answer.code == 0) {
        if (context_.logAccepted)
            RLVD_INFO("connection %lld of user %u, process %d: %s", ll(number_), asker_.user, asker_.process,
                      options_.c_str());
        hasUnsent_ = true;
        if (!isHeld_ && pushTimer_ == 0)
            pushTimer_ = context_.loop.after(kPushDelay, [this] {
                pushTimer_ = 0;
                push();
            });
    } else if (isReplyWanted_) {
        RLVD_INFO("connection %lld of user %u, process %d: refused (%d, %s): %s", ll(number_), asker_.user,
                  asker_.process, answer.code, answer.message.c_str(), options_.c_str());
        context_.history.addLost(number_, {options_, answer.code, answer.message, true});
    } else {
        lose({options_, answer.code, answer.message, false});
    }
    if (!isReplyWanted_)
        return;
    // What a later command of the same form will be answered is sure only while no host name has to be asked for.
    const std::uint64_t sure = answer.code == 0 && isAppending(options_) ? context_.table.room() : 0;
    connection_.reply(
        {protocol::encode(protocol::Reply{protocol::Reply::Kind::committed, answer.code, sure, answer.message})});
}

void Session::lose(const LostCommand &lost) {
    hasLost_ = true;
    RLVD_ERROR("connection %lld: lost (%d, %s): %s", ll(number_), lost.code, lost.message.c_str(),
               lost.options.c_str());
    context_.history.addLost(number_, lost);
}

void Session::push() {
    context_.loop.cancel(std::exchange(pushTimer_, 0));
    if (!std::exchange(hasUnsent_, false))
        return;
    try {
        report(context_.table.push());
    } catch (const std::exception &error) {
        RLVD_ERROR("connection %lld: nothing could be sent: %s", ll(number_), error.what());
        drop();
    }
}

void Session::drop() {
    context_.loop.cancel(std::exchange(pushTimer_, 0));
    hasUnsent_ = false;
    const PushReport report = context_.table.drop();
    for (const LostCommand &lost : report.lost)
        lose(lost);
    context_.history.addLostBeyondList(number_, report.lostBeyondList);
}

void Session::report(const PushReport &report) {
    if (report.changes == 0)
        RLVD_INFO("connection %lld: nothing to send", ll(number_));
    else
        RLVD_INFO("connection %lld: sent %zu changes (%zu rules added, %zu removed, %zu kept)", ll(number_),
                  report.changes, report.added, report.removed, report.kept);
    for (const std::string &chain : report.refilled)
        RLVD_INFO("connection %lld: chain %s was emptied and filled anew, its counters begin at 0", ll(number_),
                  chain.c_str());
    for (const LostCommand &lost : report.lost)
        lose(lost);
    context_.history.addLostBeyondList(number_, report.lostBeyondList);
}

} // namespace rlv
