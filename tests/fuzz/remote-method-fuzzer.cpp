// Requests for remote methods from anybody: frames, in whatever pieces they come, the arguments in them, and replies.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "fuzz/fake-sockets.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "mavo/rmi-request-stream.h"
#include "mavo/rmi.h"

namespace {

using namespace mavo::rmi;

// What the last request would be with the arguments that its handler got.
std::optional<std::string> understood;

template <typename... Args> void note(const Args &...arguments) {
    Message message;
    (message.write(arguments), ...);
    understood = message.body();
}

// As large as the kinds of arguments that there are, and their orders.
const Service &methods() {
    static Service service;
    if (!service.find("none")) {
        service.setMethodHandler<int>("/p", "none", [] {
            note();
            return 7;
        });
        service.setMethodHandler<int, std::string>("/p", "text", [](std::string &text) {
            note(text);
            return static_cast<int>(text.size());
        });
        service.setMethodHandler<std::string, int, std::string, int>("/p", "mixed", [](int &a, std::string &b, int &c) {
            note(a, b, c);
            return b + b;
        });
        service.setMethodHandler<int, std::string>("/p", "throws",
                                                   [](std::string &text) -> int { throw mavo::Exception(text); });
    }
    return service;
}

class Handler : public RequestHandler {
public:
    std::optional<Reply> refusal(const Caller &, const std::string &method, std::size_t bodyBytes) override {
        fuzz::require(method.size() <= kMethodNameLimitBytes && bodyBytes <= kBodyLimitBytes, "limits hold", method);
        if (methods().find(method))
            return std::nullopt;
        return Reply{Status::unknownMethod, {}, "no such method", {}};
    }

    Reply carryOut(const Caller &, const std::string &method, std::string body) override {
        understood.reset();
        Message request(body);
        Reply reply = invokeMethod(*methods().find(method), request);
        fuzz::require(!understood || body.compare(0, understood->size(), *understood) == 0,
                      "nothing but the arguments is understood", body);
        fuzz::require(reply.status != Status::ok || understood, "nothing is done without arguments", body);
        return reply;
    }

    std::chrono::milliseconds timeInCalls() const override { return std::chrono::milliseconds(0); }
    void ended(RequestStream &) override { connection.reset(); }

    std::unique_ptr<RequestStream> connection;
};

// The bytes of a whole conversation in pieces of these sizes, one after another and again; whole where there are none.
struct Conversation {
    std::string bytes;
    std::string sizes;
};

std::deque<std::string> piecesOf(const Conversation &conversation) {
    std::deque<std::string> pieces;
    std::size_t at = 0;
    for (std::size_t i = 0; at < conversation.bytes.size(); ++i) {
        const auto &sizes = conversation.sizes;
        const std::size_t size =
            sizes.empty() ? std::string::npos : std::size_t{static_cast<unsigned char>(sizes[i % sizes.size()])} + 1;
        pieces.push_back(conversation.bytes.substr(at, size));
        at += pieces.back().size();
    }
    return pieces;
}

// All that the client is told, until it leaves.
std::string repliesTo(const Conversation &conversation) {
    auto pieces = piecesOf(conversation);
    int fd = -1;
    support::EventLoop *running = nullptr;
    fuzz::resetSockets([&] {
        fuzz::FakeSocket &socket = fuzz::socketAt(fd);
        if (socket.isClosed || socket.peerSaysNoMore)
            return running->stop();
        if (pieces.empty())
            socket.peerSaysNoMore = true;
        else
            socket.incoming.push_back(std::move(pieces.front()));
        if (!pieces.empty())
            pieces.pop_front();
    });
    support::EventLoop loop;
    running = &loop;
    Handler handler;
    fd = fuzz::makeSocket({});
    handler.connection = std::make_unique<RequestStream>(loop, support::UniqueFd(fd), Caller{{0, 0, 0}, true, {}},
                                                         ServerLimits(), handler);
    loop.run();
    handler.connection.reset();
    std::string told;
    for (const auto &part : fuzz::socketAt(fd).sent)
        told += part;
    return told;
}

void checkReplies(const std::string &told) {
    for (std::size_t at = 0; at < told.size();) {
        const auto length = decodeReplyHead(told.substr(at, kReplyHeadBytes));
        fuzz::require(length && at + kReplyHeadBytes + *length <= told.size(), "a reply is whole", told);
        const auto reply = decodeReply(told.substr(at + kReplyHeadBytes, *length));
        fuzz::require(reply && (reply->status == Status::ok) == reply->error.empty(), "a reply is one", told);
        at += kReplyHeadBytes + *length;
    }
}

// Requests whose frames are as they should be: a method's name and a body, each up to a line's end.
std::string framesOf(fuzz::Input &input) {
    std::string bytes;
    while (!input.atEnd()) {
        const std::string method(input.takeUntil('\n'));
        const auto body = input.take(input.byte());
        bytes += encodeRequestHead(method, body.size()) + std::string(body);
    }
    return bytes;
}

void readReply(const std::string &bytes) {
    const auto reply = decodeReply(bytes);
    fuzz::require(!reply || encodeReply(*reply).substr(kReplyHeadBytes) == bytes, "a reply is written as it was read",
                  bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::uint8_t word = input.byte();
    Conversation conversation;
    conversation.sizes = input.take(word & 7U);
    conversation.bytes = (word & 8U) != 0 ? framesOf(input) : std::string(input.rest());
    const std::string told = repliesTo(conversation);
    checkReplies(told);
    if (!conversation.sizes.empty())
        fuzz::require(repliesTo({conversation.bytes, {}}) == told, "the pieces make no difference", conversation.bytes);
    readReply(conversation.bytes);
    return 0;
}
