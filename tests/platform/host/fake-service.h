// A traffic-control service of the test's making, on a thread of its own: what it answers, and what it was asked.
#ifndef TESTS_PLATFORM_HOST_FAKE_SERVICE_H
#define TESTS_PLATFORM_HOST_FAKE_SERVICE_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rlv/protocol.h"
#include "rlv/rlv-query.h"
#include "support/unique-fd.h"

namespace hosttest {

struct Answers {
    rlv::ServiceState state;
    rlv::Comparison comparison;
    rlv::NamesState names;
    std::uint64_t failedOnClosing = 0; // of the commands of a connection
};

struct Asked {
    rlv::protocol::Request::Kind kind;
    std::uint64_t number;
    rlv::protocol::NamesRequest names; // of a request about these
    std::vector<std::string> commands; // wanted, or sent
};

// This process asks it for as long as it lives. When it has gone nobody is there.
class FakeService {
public:
    FakeService();
    ~FakeService();
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

    void change(const std::function<void(Answers &)> &how);
    // What was asked since the last time, but openings.
    std::vector<Asked> asked();
    // The same of names alone, in words: "announce a.example b.example".
    std::vector<std::string> askedOfNames();

private:
    struct Client {
        support::UniqueFd fd;
        std::vector<std::string> commands;
    };

    void serve();
    bool serve(Client &client);
    std::vector<std::string> repliesTo(Client &client, const rlv::protocol::Request &request);

    support::UniqueFd listener_;
    support::UniqueFd end_[2];
    std::mutex mutex_;
    Answers answers_;
    std::vector<Asked> asked_;
    std::uint64_t opened_ = 0;
    std::thread thread_;
};

} // namespace hosttest

#endif
