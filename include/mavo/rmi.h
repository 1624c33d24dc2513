// Remote methods as the platform's utility library offers them: a table of methods, and the messages that reach them.
#ifndef MAVO_RMI_H
#define MAVO_RMI_H

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_map>

#include "mavo/exception.h"

namespace mavo {
namespace rmi {

// A message does not hold the values that are expected of it: the caller's mistake, never the handler's.
class __attribute__((visibility("default"))) BadArguments : public Exception {
public:
    using Exception::Exception;
    BadArguments(const BadArguments &) = default;
    BadArguments &operator=(const BadArguments &) = default;
    ~BadArguments() override;
};

// The body of a request or a reply: values one after another. An int is 4 bytes, little endian; a string is its length
// as such an int, then its bytes.
class __attribute__((visibility("default"))) Message {
public:
    Message();
    explicit Message(std::string body);

    // An empty message in answer to this one.
    Message createReplyMessage() const;

    void write(int value);
    void write(const std::string &value);
    // Read the next value. Throw BadArguments, with nothing read, when the body ends before the value does.
    void read(int &value);
    void read(std::string &value);

    // True when every byte has been read.
    bool atEnd() const;
    const std::string &body() const;

private:
    std::string content;
    std::size_t position; // never beyond the content
};

// What the service keeps for one method. The dispatcher reads the arguments from the request, calls the handler and
// returns the reply. It throws BadArguments, without calling the handler, when the request ends before the arguments,
// and lets the handler's exceptions through. What stands behind the arguments it leaves unread: whoever wants such a
// request refused refuses it before.
struct MethodContext {
    std::string privilege;
    std::function<Message(Message &)> dispatcher;
};

// A table of methods. It listens nowhere by itself: the host that owns it serves it.
class __attribute__((visibility("default"))) Service {
public:
    Service();
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Adds the method `name` for callers that hold `privilege` (an identifier in URL form, of which the path counts).
    // The handler takes its arguments by reference: setMethodHandler<int, std::string> takes a
    // std::function<int(std::string &)>. Throws mavo::Exception "Method handler already registered" when the name is
    // taken. Thread-safe.
    template <typename Result, typename... Args>
    void setMethodHandler(const std::string &privilege, const std::string &name,
                          const typename std::common_type<std::function<Result(Args &...)>>::type &handler);

    // The method of that name, or null. Thread-safe.
    std::shared_ptr<const MethodContext> find(const std::string &name) const;

private:
    void addMethod(const std::string &name, std::shared_ptr<const MethodContext> context);

    mutable std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<const MethodContext>> methods;
};

template <typename Result, typename... Args>
void Service::setMethodHandler(const std::string &privilege, const std::string &name,
                               const typename std::common_type<std::function<Result(Args &...)>>::type &handler) {
    auto context = std::make_shared<MethodContext>();
    context->privilege = privilege;
    context->dispatcher = [handler](Message &request) {
        Message reply = request.createReplyMessage();
        std::tuple<Args...> arguments;
        std::apply([&request](auto &...argument) { (request.read(argument), ...); }, arguments);
        reply.write(std::apply(handler, arguments));
        return reply;
    };
    addMethod(name, context);
}

} // namespace rmi
} // namespace mavo

#endif
