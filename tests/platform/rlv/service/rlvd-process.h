// rlvd as a process of its own, and clients that keep to the rules and others.
#ifndef TESTS_PLATFORM_RLV_SERVICE_RLVD_PROCESS_H
#define TESTS_PLATFORM_RLV_SERVICE_RLVD_PROCESS_H

#include "rlv/rlv.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rlv/protocol.h"
#include "rlv/rlv-query.h"
#include "support/process.h"
#include "support/unique-fd.h"

namespace rlvd {

constexpr const char *kSocket = "/run/rlvd-socket";

// A command line of the service: on the tests' socket, with the log on standard error, and with `options`.
std::vector<std::string> words(const std::vector<std::string> &options);
// What is left of a service that is expected to end by itself.
process::Result ended(const std::vector<std::string> &options, const process::Options &how = process::Options());

// A running service that this process and its children reach; killed with the object.
class Service {
public:
    explicit Service(const std::vector<std::string> &options, const process::Options &how = process::Options());
    std::string log() const { return child_.errors(); }
    process::Child &process() { return child_; }

private:
    process::Child child_;
};

class SimulatedService : public Service {
public:
    explicit SimulatedService(std::vector<std::string> options = {});
};

// A connection for as long as the object lives.
class Client {
public:
    Client();
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // "code: message"; "0: " when accepted.
    std::string commit(const std::string &options) const;
    // What rlv_deinitialize returns.
    int close() { return rlv_deinitialize(std::exchange(handle_, 0)); }

private:
    rlv_handle handle_ = 0;
};

// A client that does not keep to the rules.
class RawClient {
public:
    RawClient();
    bool send(const std::string &packet, int flags = 0);
    bool send(rlv::protocol::Request::Kind kind, std::uint64_t number = 0, const std::string &text = {}, int flags = 0);
    // Waits. Empty when the service has closed the socket.
    std::optional<rlv::protocol::Reply> receive();
    // Opens a connection and returns its number.
    std::uint64_t open();

private:
    support::UniqueFd fd_;
};

// What became of this process's connection `number`; fails the test when the service does not know.
rlv::ConnectionOutcome outcomeOf(std::uint64_t number);
// How many rules the service sees in a chain.
std::uint64_t rulesOf(const std::string &chain);

// Puts a file with this text over `path`, for this test.
void replaceFile(const std::string &path, const std::string &text);

} // namespace rlvd

#endif
