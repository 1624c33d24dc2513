// A name server for a test, in its own network namespace.
#ifndef TESTS_SUPPORT_NAME_SERVER_H
#define TESTS_SUPPORT_NAME_SERVER_H

#include <cstddef>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <vector>

#include "support/unique-fd.h"

namespace nameserver {

// What is answered for a name; of a name that nothing was said about, that it does not exist.
struct Reply {
    enum class Kind { addresses, absent, failure, silence, held };
    Kind kind = Kind::absent;
    std::vector<std::string> addresses; // at most 20, which fit into a packet
};

inline Reply addresses(std::vector<std::string> these) { return {Reply::Kind::addresses, std::move(these)}; }
inline Reply failure() { return {Reply::Kind::failure, {}}; }
inline Reply silence() { return {Reply::Kind::silence, {}}; }
inline Reply absent() { return {Reply::Kind::absent, {}}; }
// None before release().
inline Reply held() { return {Reply::Kind::held, {}}; }

// Answers at 127.0.0.1, port 53, until the end of the object.
class NameServer {
public:
    NameServer();
    ~NameServer();
    NameServer(const NameServer &) = delete;
    NameServer &operator=(const NameServer &) = delete;

    // From now on; for `name` and all names below it. The longest match counts.
    void set(const std::string &name, const Reply &reply);
    // How often this very name was asked for so far.
    std::size_t questions(const std::string &name);
    // Answers the first `count` of the questions that are held, in the order in which they came.
    void release(std::size_t count, const Reply &reply);

private:
    struct Question {
        std::string text;
        sockaddr_in asker{};
    };

    void serve();
    void take(const Question &question);
    void answer(const Question &question, const Reply &reply);
    Reply replyFor(const std::string &name) const;

    support::UniqueFd socket_;
    support::UniqueFd stop_;
    std::mutex mutex_;
    std::map<std::string, Reply> replies_;
    std::map<std::string, std::size_t> questions_;
    std::deque<Question> held_;
    // A process that was forked while a thread begins, with the sanitizer's locks taken for it, can begin none itself.
    std::promise<void> isServing_;
    std::thread thread_;
};

// Looks names up in /etc/hosts (which gets this text) and then asks that server, for this test.
void useNameServer(const std::string &hosts = std::string());

} // namespace nameserver

#endif
