#include "mavo/rmi.h"

#include <climits>
#include <cstdint>
#include <string_view>

#include "support/little-endian.h"

namespace mavo {
namespace rmi {

namespace {

constexpr std::size_t kIntSizeBytes = 4;

} // namespace

BadArguments::~BadArguments() = default;

Message::Message() : position(0) {}

Message::Message(std::string body) : content(std::move(body)), position(0) {}

// A method for other implementations' sake: nothing of the request goes into the reply.
Message Message::createReplyMessage() const { return {}; }

void Message::write(int value) {
    support::appendLittleEndian(content, static_cast<std::uint32_t>(value), kIntSizeBytes);
}

void Message::write(const std::string &value) {
    if (value.size() > INT_MAX)
        throw Exception("String too long for a message");
    write(static_cast<int>(value.size()));
    content += value;
}

void Message::read(int &value) {
    if (content.size() - position < kIntSizeBytes)
        throw BadArguments("Message ends before an integer");
    const auto bits = support::fromLittleEndian(std::string_view(content).substr(position, kIntSizeBytes));
    position += kIntSizeBytes;
    value = static_cast<int>(static_cast<std::uint32_t>(bits));
}

void Message::read(std::string &value) {
    const std::size_t start = position;
    int length = 0;
    read(length);
    if (length < 0 || content.size() - position < static_cast<std::size_t>(length)) {
        position = start;
        throw BadArguments("Message ends before a string");
    }
    value.assign(content, position, static_cast<std::size_t>(length));
    position += static_cast<std::size_t>(length);
}

bool Message::atEnd() const { return position == content.size(); }

const std::string &Message::body() const { return content; }

Service::Service() = default;

Service::~Service() = default;

std::shared_ptr<const MethodContext> Service::find(const std::string &name) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = methods.find(name);
    return found != methods.end() ? found->second : nullptr;
}

void Service::addMethod(const std::string &name, std::shared_ptr<const MethodContext> context) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!methods.emplace(name, std::move(context)).second)
        throw Exception("Method handler already registered");
}

} // namespace rmi
} // namespace mavo
