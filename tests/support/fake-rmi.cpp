// The utility library's remote methods without a transport, for unit tests.
#include <cstdint>
#include <cstring>
#include <utility>

#include <mavo/exception.h>
#include <mavo/rmi.h>

namespace mavo {
namespace rmi {

BadArguments::~BadArguments() = default;

Message::Message() : Message(std::string()) {}

Message::Message(std::string body) : content(std::move(body)), position(0) {}

Message Message::createReplyMessage() const { return Message(); }

void Message::write(int value) {
    const auto bits = static_cast<std::uint32_t>(value);
    for (int shift = 0; shift < 32; shift += 8)
        content.push_back(static_cast<char>(bits >> shift & 0xff));
}

void Message::write(const std::string &value) {
    write(static_cast<int>(value.size()));
    content += value;
}

void Message::read(int &value) {
    if (content.size() - position < 4)
        throw BadArguments("no int");
    std::uint32_t bits = 0;
    for (int shift = 0; shift < 32; shift += 8)
        bits |= static_cast<std::uint32_t>(static_cast<unsigned char>(content[position++])) << shift;
    value = static_cast<int>(bits);
}

void Message::read(std::string &value) {
    int size = 0;
    read(size);
    if (size < 0 || content.size() - position < static_cast<std::size_t>(size))
        throw BadArguments("no string");
    value = content.substr(position, static_cast<std::size_t>(size));
    position += value.size();
}

bool Message::atEnd() const { return position == content.size(); }

const std::string &Message::body() const { return content; }

Service::Service() = default;
Service::~Service() = default;

void Service::addMethod(const std::string &name, std::shared_ptr<const MethodContext> context) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!methods.emplace(name, std::move(context)).second)
        throw Exception("Method handler already registered");
}

std::shared_ptr<const MethodContext> Service::find(const std::string &name) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = methods.find(name);
    return found != methods.end() ? found->second : nullptr;
}

} // namespace rmi
} // namespace mavo
