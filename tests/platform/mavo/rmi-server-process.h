// A server of remote methods in a process of its own, and clients that keep to no protocol.
#ifndef TESTS_PLATFORM_MAVO_RMI_SERVER_PROCESS_H
#define TESTS_PLATFORM_MAVO_RMI_SERVER_PROCESS_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

#include "mavo/rmi-protocol.h"
#include "mavo/rmi-server.h"
#include "support/unique-fd.h"

namespace rmitest {

constexpr const char *kPath = "/run/socket";
constexpr uid_t kUser = 12345;  // holds "/privilege/open" by the privileges file
constexpr uid_t kOther = 12346; // holds nothing

// Serves on kPath until it is destroyed:
//   Echo(string) → string, Blob(int) → string of that size, Sleep(int ms) → int, OpenFiles(int) → how many of so many
//   files it could open at once, Connections() → int, Throw() with privilege "/privilege/open";
//   Secret(string) → int with privilege "/privilege/secret".
class ServerProcess {
public:
    explicit ServerProcess(const mavo::rmi::ServerLimits &limits = {}, int descriptorLimit = 0,
                           const std::function<void(mavo::rmi::Server::Find &)> &changeFind = {});
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    // Processor time of the server so far.
    std::chrono::milliseconds processorTime() const;
    // Size of its data segment, from /proc.
    std::size_t dataBytes() const;
    // Calls that reached a method.
    int calls() const;

private:
    pid_t child_ = -1;
    support::UniqueFd stop_;
    int *calls_ = nullptr;
};

// A connection of bare bytes. Every wait ends after ten seconds with what has come until then.
class RawClient {
public:
    RawClient();
    // False when the server has closed its end.
    bool send(const std::string &bytes) const;
    void endSending() const;
    // So many bytes, or fewer when the connection ends before.
    std::string receive(std::size_t size) const;
    // None when there comes no whole and sound reply.
    std::optional<mavo::rmi::Reply> reply() const;
    // Whether there is anything to read now.
    bool answered() const;
    // Whether nothing but the end of the connection is left to read.
    bool atEnd() const;

private:
    support::UniqueFd socket_;
};

std::string requestBytes(const std::string &method, const std::string &body);
// The body for methods with one such argument.
std::string body(const std::string &argument);
std::string body(int argument);
// As a good client gets it on a connection of its own; "status N: error" unless the status is ok.
std::string echoOnce(const std::string &text);
int intReply(const mavo::rmi::Reply &reply);

// The result, below 100, of `body` in a child process of that user. 100 stands for an exception.
int asUser(uid_t uid, const std::function<int()> &body);
bool eventually(const std::function<bool()> &condition);

} // namespace rmitest

#endif
