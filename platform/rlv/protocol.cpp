#include "rlv/protocol.h"

#include <algorithm>

#include "support/little-endian.h"

namespace rlv::protocol {
namespace {

using support::appendLittleEndian;
using support::FieldReader;
using support::FieldWriter;
using support::fromLittleEndian;

constexpr std::size_t kRequestHeadBytes = 1 + 8;
constexpr std::size_t kReplyHeadBytes = 1 + 4 + 8;
constexpr std::size_t kLengthBytes = 2;
constexpr std::size_t kMaxNameBytes = 254; // with the root's dot

int codeOf(FieldReader &in) { return static_cast<std::int32_t>(in.word()); }

void write(FieldWriter &out, const FailedCommand &failed) {
    out.text(failed.options);
    out.integer(static_cast<std::uint32_t>(failed.code), 4);
    out.text(failed.message);
    out.flag(failed.wasRefused);
}

FailedCommand readFailed(FieldReader &in) {
    FailedCommand failed;
    failed.options = in.text();
    failed.code = codeOf(in);
    failed.message = in.text();
    failed.wasRefused = in.flag();
    return failed;
}

void write(FieldWriter &out, const DriftState &drift) {
    out.flag(drift.isMending);
    out.integer(drift.repairs, 8);
    out.list(drift.texts, [&](const std::string &text) { out.text(text); });
    out.integer(drift.differences, 8);
    out.text(drift.processName);
    out.integer(drift.process, 4);
    out.text(drift.problem);
    out.integer(static_cast<std::uint64_t>(drift.nextAttemptSeconds), 8);
}

DriftState readDrift(FieldReader &in) {
    DriftState drift;
    drift.isMending = in.flag();
    drift.repairs = in.integer(8);
    in.list([&] { drift.texts.push_back(in.text()); });
    drift.differences = in.integer(8);
    drift.processName = in.text();
    drift.process = in.word();
    drift.problem = in.text();
    drift.nextAttemptSeconds = static_cast<std::int64_t>(in.integer(8));
    return drift;
}

void write(FieldWriter &out, const ConnectionOutcome &outcome) {
    out.integer(outcome.number, 8);
    out.integer(static_cast<std::uint64_t>(outcome.end), 1);
    out.list(outcome.failed, [&](const FailedCommand &failed) { write(out, failed); });
    out.integer(outcome.failedBeyondList, 8);
}

ConnectionOutcome readOutcome(FieldReader &in) {
    ConnectionOutcome outcome;
    outcome.number = in.integer(8);
    outcome.end = static_cast<ConnectionEnd>(std::min<std::uint64_t>(in.integer(1), 3));
    in.list([&] { outcome.failed.push_back(readFailed(in)); });
    outcome.failedBeyondList = in.integer(8);
    return outcome;
}

void write(FieldWriter &out, const ChainState &chain) {
    out.text(chain.name);
    out.integer(chain.rules, 8);
    out.integer(chain.longestWalk, 8);
}

ChainState readChain(FieldReader &in) {
    ChainState chain;
    chain.name = in.text();
    chain.rules = in.integer(8);
    chain.longestWalk = in.integer(8);
    return chain;
}

std::string flatten(const ServiceState &state) {
    FieldWriter out;
    out.flag(state.simulated);
    out.integer(state.serviceId, 8);
    out.list(state.hooks, [&](const HookState &hook) { out.text(hook.chain), out.text(hook.target); });
    out.list(state.chains, [&](const ChainState &chain) { write(out, chain); });
    out.list(state.connections, [&](const ConnectionOutcome &outcome) { write(out, outcome); });
    write(out, state.drift);
    return out.take();
}

void write(FieldWriter &out, const UnansweredName &name) {
    out.text(name.name);
    out.integer(static_cast<std::uint64_t>(name.problem), 1);
    out.integer(name.addresses, 8);
    out.integer(static_cast<std::uint64_t>(name.ageSeconds), 8);
    out.flag(name.allows);
}

UnansweredName readName(FieldReader &in) {
    UnansweredName name;
    name.name = in.text();
    name.problem = static_cast<UnansweredName::Problem>(std::min<std::uint64_t>(in.integer(1), 2));
    name.addresses = in.integer(8);
    name.ageSeconds = static_cast<std::int64_t>(in.integer(8));
    name.allows = in.flag();
    return name;
}

std::string flatten(const NamesState &state) {
    FieldWriter out;
    for (const std::uint64_t number :
         {state.serviceId, state.generation, state.inUse, state.unanswered, state.refreshSeconds})
        out.integer(number, 8);
    out.list(state.list, [&](const UnansweredName &name) { write(out, name); });
    return out.take();
}

void write(FieldWriter &out, const Difference &difference) {
    out.integer(static_cast<std::uint64_t>(difference.kind), 1);
    for (const auto *text : {&difference.chain, &difference.rule, &difference.why})
        out.text(*text);
}

Difference readDifference(FieldReader &in) {
    Difference difference;
    difference.kind = static_cast<Difference::Kind>(std::min<std::uint64_t>(in.integer(1), kDifferenceKinds - 1));
    for (auto *text : {&difference.chain, &difference.rule, &difference.why})
        *text = in.text();
    return difference;
}

void write(FieldWriter &out, const ComparedChain &chain) {
    out.text(chain.name);
    out.integer(chain.wanted, 8);
    out.integer(chain.inForce, 8);
}

ComparedChain readComparedChain(FieldReader &in) {
    ComparedChain chain;
    chain.name = in.text();
    chain.wanted = in.integer(8);
    chain.inForce = in.integer(8);
    return chain;
}

std::string flatten(const Comparison &comparison) {
    FieldWriter out;
    out.flag(comparison.simulated);
    out.list(comparison.chains, [&](const ComparedChain &chain) { write(out, chain); });
    out.list(comparison.differences, [&](const Difference &difference) { write(out, difference); });
    for (std::size_t kind = 0; kind < kDifferenceKinds; ++kind)
        out.integer(comparison.counts.at(kind), 8);
    return out.take();
}

std::vector<std::string> inParts(const std::string &text) {
    constexpr std::size_t kPartBytes = kMaxPacketBytes - kReplyHeadBytes;
    std::vector<std::string> packets;
    for (std::size_t at = 0; at < text.size(); at += kPartBytes) {
        const std::uint64_t partsAfter = (text.size() - at - 1) / kPartBytes;
        packets.push_back(encode(Reply{Reply::Kind::state, 0, partsAfter, text.substr(at, kPartBytes)}));
    }
    return packets;
}

} // namespace

std::string encode(const Request &request) {
    FieldWriter out;
    out.integer(static_cast<std::uint64_t>(request.kind), 1);
    out.integer(request.number, 8);
    out.rest(request.text);
    return out.take();
}

std::string encode(const Reply &reply) {
    FieldWriter out;
    out.integer(static_cast<std::uint64_t>(reply.kind), 1);
    out.integer(static_cast<std::uint32_t>(reply.code), 4);
    out.integer(reply.number, 8);
    out.rest(std::string_view(reply.text).substr(0, kMaxPacketBytes - kReplyHeadBytes));
    return out.take();
}

bool decodeRequest(std::string_view packet, Request &request) {
    constexpr std::string_view kKinds = "OTCLXQNMWR";
    FieldReader in(packet);
    const char kind = static_cast<char>(in.integer(1));
    request.kind = static_cast<Request::Kind>(kind);
    request.number = in.integer(8);
    request.text = in.rest();
    return in.good() && kKinds.find(kind) != std::string_view::npos;
}

std::optional<Reply> decodeReply(std::string_view packet) {
    constexpr std::string_view kKinds = "ocxqrw";
    FieldReader in(packet);
    Reply reply;
    const char kind = static_cast<char>(in.integer(1));
    reply.kind = static_cast<Reply::Kind>(kind);
    reply.code = codeOf(in);
    reply.number = in.integer(8);
    reply.text = in.rest();
    if (!in.good() || kKinds.find(kind) == std::string_view::npos)
        return std::nullopt;
    return reply;
}

bool CommandList::add(std::string_view options) {
    if (count_ == kMaxListedCommands || options.size() > kMaxOptionsBytes ||
        packet_.size() - kRequestHeadBytes + kLengthBytes + options.size() > kMaxListBytes)
        return false;
    appendLittleEndian(packet_, options.size(), kLengthBytes);
    packet_.append(options);
    ++count_;
    return true;
}

void CommandList::clear() {
    packet_.assign(1, static_cast<char>(kind_));
    packet_.append(kRequestHeadBytes - 1, '\0');
    count_ = 0;
}

void CommandList::setNumber(std::uint64_t number) {
    packet_.replace(0, kRequestHeadBytes, encode(Request{kind_, number, {}}));
}

std::string_view takeCommand(std::string_view &text) {
    const auto bytes = static_cast<std::size_t>(fromLittleEndian(text.substr(0, kLengthBytes)));
    const std::string_view command = text.substr(std::min(kLengthBytes, text.size())).substr(0, bytes);
    text.remove_prefix(std::min(kLengthBytes + bytes, text.size()));
    return command;
}

bool isCommandList(std::string_view text) {
    std::size_t count = 0;
    if (text.size() > kMaxListBytes)
        return false;
    for (; !text.empty(); ++count) {
        const std::size_t left = text.size();
        const auto bytes = static_cast<std::size_t>(fromLittleEndian(text.substr(0, kLengthBytes)));
        if (left < kLengthBytes || bytes > kMaxOptionsBytes || bytes > left - kLengthBytes)
            return false;
        text.remove_prefix(kLengthBytes + bytes);
    }
    return count <= kMaxListedCommands;
}

std::vector<std::string> encodeState(const ServiceState &state) { return inParts(flatten(state)); }

std::vector<std::string> encodeState(const NamesState &state) { return inParts(flatten(state)); }

std::optional<ServiceState> decodeState(std::string_view text) {
    FieldReader in(text);
    ServiceState state;
    state.simulated = in.flag();
    state.serviceId = in.integer(8);
    in.list([&] {
        HookState hook;
        hook.chain = in.text();
        hook.target = in.text();
        state.hooks.push_back(std::move(hook));
    });
    in.list([&] { state.chains.push_back(readChain(in)); });
    in.list([&] { state.connections.push_back(readOutcome(in)); });
    state.drift = readDrift(in);
    if (!in.complete())
        return std::nullopt;
    return state;
}

std::optional<NamesState> decodeNamesState(std::string_view text) {
    FieldReader in(text);
    NamesState state;
    for (auto *number : {&state.serviceId, &state.generation, &state.inUse, &state.unanswered, &state.refreshSeconds})
        *number = in.integer(8);
    in.list([&] { state.list.push_back(readName(in)); });
    return in.complete() ? std::make_optional(std::move(state)) : std::nullopt;
}

std::vector<std::string> encodeState(const Comparison &comparison) { return inParts(flatten(comparison)); }

std::optional<Comparison> decodeComparison(std::string_view text) {
    FieldReader in(text);
    Comparison comparison;
    comparison.simulated = in.flag();
    in.list([&] { comparison.chains.push_back(readComparedChain(in)); });
    in.list([&] { comparison.differences.push_back(readDifference(in)); });
    for (auto &count : comparison.counts)
        count = in.integer(8);
    return in.complete() ? std::make_optional(std::move(comparison)) : std::nullopt;
}

std::vector<Request> encodeNamesRequest(NamesRequest::About about, const std::vector<std::string> &names) {
    std::vector<Request> requests(1, {Request::Kind::names, static_cast<std::uint64_t>(about), {}});
    for (const std::string &name : names) {
        if (name.size() > kMaxNameBytes)
            continue;
        if (requests.back().text.size() + name.size() + 1 > kMaxListBytes) {
            requests.back().number |= kMoreFollow;
            requests.push_back({Request::Kind::names, static_cast<std::uint64_t>(about), {}});
        }
        requests.back().text += name + '\n';
    }
    return requests;
}

std::optional<NamesRequest> decodeNamesRequest(const Request &request) {
    NamesRequest decoded;
    const std::uint64_t about = request.number & ~kMoreFollow;
    if (request.kind != Request::Kind::names || about > static_cast<std::uint64_t>(NamesRequest::About::retain))
        return std::nullopt;
    decoded.about = static_cast<NamesRequest::About>(about);
    decoded.moreFollow = (request.number & kMoreFollow) != 0;
    std::string_view rest = request.text;
    for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
        decoded.names.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    return rest.empty() ? std::make_optional(std::move(decoded)) : std::nullopt;
}

} // namespace rlv::protocol
