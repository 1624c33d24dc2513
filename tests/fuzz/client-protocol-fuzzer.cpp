// What the traffic-control service and its clients read from each other: every packet that is understood is written
// again as it was.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "rlv/protocol.h"

namespace {

using namespace rlv::protocol;

void readRequest(std::string_view packet) {
    Request request;
    if (decodeRequest(packet, request))
        fuzz::require(encode(request) == packet, "a request is written as it was read", packet);
}

void readReply(std::string_view packet) {
    const auto reply = decodeReply(packet);
    if (reply && packet.size() <= kMaxPacketBytes)
        fuzz::require(encode(*reply) == packet, "a reply is written as it was read", packet);
}

void readList(std::string_view text) {
    const bool isList = isCommandList(text);
    const std::string_view whole = text;
    CommandList list;
    while (!text.empty()) {
        const std::size_t left = text.size();
        const auto command = takeCommand(text);
        fuzz::require(text.size() < left, "a list comes to its end", whole);
        fuzz::require(!isList || list.add(command), "a list is within the limits", whole);
    }
    Request request;
    fuzz::require(decodeRequest(list.packet(), request), "a list is a request", whole);
    fuzz::require(!isList || request.text == whole, "a list is written as it was read", whole);
}

std::string joined(const std::vector<std::string> &packets) {
    std::string text;
    std::uint64_t left = packets.size();
    for (const auto &packet : packets) {
        const auto part = decodeReply(packet);
        fuzz::require(part && packet.size() <= kMaxPacketBytes && part->kind == Reply::Kind::state &&
                          part->number == --left,
                      "the parts of a state are replies, counted down");
        text += part->text;
    }
    return text;
}

template <typename State> void readState(std::string_view bytes, std::optional<State> (*decode)(std::string_view)) {
    const auto state = decode(bytes);
    if (!state)
        return;
    const std::string text = joined(encodeState(*state));
    const auto again = decode(text);
    fuzz::require(text.size() == bytes.size() && again && joined(encodeState(*again)) == text,
                  "a state is written as it was read", bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    readRequest(bytes);
    readReply(bytes);
    readList(bytes);
    readState(bytes, decodeState);
    readState(bytes, decodeComparison);
    return 0;
}
