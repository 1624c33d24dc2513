// What a command costs the client and the traffic-control service, by the way in which it is sent. Starts the service
// (the first argument is the path of rlvd) with --simulate on a socket of its own and prints one line for each way:
// medians over several connections. Processor time of the service does not include closing.
#include "rlv/rlv-query.h"
#include "rlv/rlv.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "rlv/known-answers.h"
#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace {

using rlv::protocol::CommandList;
using rlv::protocol::Request;

constexpr std::size_t kCommands = 20'000;
constexpr int kConnections = 7;

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "traffic-control: %s: %s\n", what, std::strerror(errno));
    std::exit(EXIT_FAILURE);
}

double seconds(clockid_t clock) {
    timespec now{};
    if (::clock_gettime(clock, &now) != 0)
        fail("clock_gettime");
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The rules of a policy, in the order in which a database with both chains and directions gives them.
std::vector<std::string> commands() {
    constexpr std::array kEnds{" --sport 80 -j ACCEPT", " --dport 1000:2000 -j VPK-LOGANDDROP", " --sport 443 -j DROP"};
    constexpr std::array kBegins{"-A VPK-ALLOW -p tcp -s ", "-A VPK-DENY -p udp -d ", "-A VPK-DENY -p tcp -s "};
    std::vector<std::string> all;
    for (std::size_t i = 0; i < kCommands; ++i)
        all.push_back(kBegins[i % 3] + std::to_string(10 + i / 65'536) + "." + std::to_string(i / 256 % 256) + "." +
                      std::to_string(i % 256) + ".17" + kEnds[i % 3]);
    return all;
}

class RlvdProcess {
public:
    RlvdProcess(const char *program, const std::string &socket) {
        child_ = ::fork();
        if (child_ == 0) {
            ::execl(program, program, "--simulate", "--socket", socket.c_str(), "--log-file", (socket + ".log").c_str(),
                    nullptr);
            fail(program);
        }
        rlv::setSocketPath(socket);
        for (int i = 0; i < 1'000; ++i) {
            if (::access(socket.c_str(), F_OK) == 0 && ::clock_getcpuclockid(child_, &clock_) == 0)
                return;
            ::usleep(10'000);
        }
        fail("the service does not start");
    }
    ~RlvdProcess() {
        ::kill(child_, SIGTERM);
        ::waitpid(child_, nullptr, 0);
    }
    RlvdProcess(const RlvdProcess &) = delete;
    RlvdProcess &operator=(const RlvdProcess &) = delete;
    double cpu() const { return seconds(clock_); }

private:
    pid_t child_ = -1;
    clockid_t clock_ = 0;
};

// A connection without the client library.
class Raw {
public:
    explicit Raw(const std::string &path) : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            fail("connect");
        ask(Request{Request::Kind::open, rlv::protocol::kVersion, {}});
    }
    void send(const std::string &packet) const {
        if (::send(fd_.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0)
            fail("send");
    }
    void ask(const Request &request) const {
        send(rlv::protocol::encode(request));
        std::array<char, rlv::protocol::kMaxPacketBytes> buffer;
        const ssize_t size = ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
        const auto reply = rlv::protocol::decodeReply({buffer.data(), static_cast<std::size_t>(std::max(size, 0L))});
        if (!reply || reply->code != 0)
            fail("an answer is not as expected");
    }
    void commit(const std::string &options) const { ask(Request{Request::Kind::commit, 0, options}); }

private:
    support::UniqueFd fd_;
};

void commit(rlv_handle handle, const char *options) {
    int code = 0;
    if (rlv_iptables_commit(handle, options, &code, nullptr) != 0)
        fail("rlv_iptables_commit");
}

struct Cost {
    double clientWall = 0;
    double clientCpu = 0;
    double serviceCpu = 0;
};

// `send` sends all, `settle` waits until the service has taken all.
Cost measure(const RlvdProcess &service, const std::function<void()> &send, const std::function<void()> &settle) {
    const double serviceBefore = service.cpu();
    const double wallBefore = seconds(CLOCK_MONOTONIC);
    const double cpuBefore = seconds(CLOCK_THREAD_CPUTIME_ID);
    send();
    Cost cost{seconds(CLOCK_MONOTONIC) - wallBefore, seconds(CLOCK_THREAD_CPUTIME_ID) - cpuBefore, 0};
    settle();
    cost.serviceCpu = service.cpu() - serviceBefore;
    return cost;
}

constexpr std::array kTables{"-N VPK-ALLOW", "-N VPK-DENY", "-N VPK-LOGANDDROP"};
constexpr std::array kEmptying{"-F VPK-ALLOW", "-F VPK-DENY"};
// Of a form that nothing else has, so that it is asked.
constexpr const char *kSettling = "-A VPK-DENY -p icmp -j DROP";

Cost roundTrips(const RlvdProcess &service, const std::string &path, const std::vector<std::string> &all) {
    const Raw raw(path);
    for (const char *options : kEmptying)
        raw.commit(options);
    const auto send = [&] {
        for (const auto &options : all)
            raw.commit(options);
    };
    const Cost cost = measure(service, send, [] {});
    raw.ask(Request{Request::Kind::close, 0, {}});
    return cost;
}

Cost library(const RlvdProcess &service, const std::vector<std::string> &all, bool isDeferred) {
    const auto emptied = [](bool isKept) {
        rlv_handle handle = 0;
        if (rlv_initialize(&handle) != 0)
            fail("rlv_initialize");
        for (const char *options : kEmptying)
            commit(handle, options);
        if (isKept)
            return handle;
        rlv_deinitialize(handle);
        if (rlv_initialize(&handle) != 0)
            fail("rlv_initialize");
        return handle;
    };
    const rlv_handle handle = emptied(isDeferred);
    const auto send = [&] {
        for (const auto &options : all)
            commit(handle, options.c_str());
    };
    const Cost cost = measure(service, send, [&] { commit(handle, kSettling); });
    if (rlv_deinitialize(handle) != 0)
        fail("rlv_deinitialize");
    return cost;
}

// What the library does once it knows the answers, with packets of another size.
Cost lists(const RlvdProcess &service, const std::string &path, const std::vector<std::string> &all,
           std::size_t packetBytes) {
    const Raw raw(path);
    for (const char *options : kEmptying)
        raw.commit(options);
    rlv::KnownAnswers known;
    CommandList list;
    const auto send = [&] {
        for (const auto &options : all) {
            if (!known.take(options))
                known.learn(options, true, kCommands);
            if (!list.add(options))
                fail("a list is too long");
            if (list.packet().size() <= packetBytes)
                continue;
            raw.send(list.packet());
            list.clear();
        }
        raw.send(list.packet());
    };
    const Cost cost = measure(service, send, [&] { raw.commit(kSettling); });
    raw.ask(Request{Request::Kind::close, 0, {}});
    return cost;
}

void print(const std::string &name, const std::function<Cost()> &connection) {
    std::array<std::vector<double>, 3> all;
    for (int i = 0; i < kConnections; ++i) {
        const Cost cost = connection();
        all[0].push_back(cost.clientWall);
        all[1].push_back(cost.clientCpu);
        all[2].push_back(cost.serviceCpu);
    }
    for (auto &values : all)
        std::nth_element(values.begin(), values.begin() + kConnections / 2, values.end());
    const auto micro = [&](std::size_t column) {
        return all[column][kConnections / 2] / static_cast<double>(kCommands) * 1e6;
    };
    std::printf("%-34s %12.2f %12.2f %12.2f\n", name.c_str(), micro(0), micro(1), micro(2));
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: traffic-control PATH-OF-RLVD\n");
        return EXIT_FAILURE;
    }
    const std::string path = "/tmp/traffic-control-benchmark-" + std::to_string(::getpid());
    {
        const RlvdProcess service(argv[1], path);
        const auto all = commands();
        {
            const Raw raw(path);
            for (const char *options : kTables)
                raw.commit(options);
            raw.ask(Request{Request::Kind::close, 0, {}});
        }
        std::printf("microseconds for one of %zu commands, medians of %d connections\n%-34s %12s %12s %12s\n",
                    kCommands, kConnections, "", "client wall", "client CPU", "service CPU");
        print("a round trip each", [&] { return roundTrips(service, path, all); });
        print("library, only adding", [&] { return library(service, all, false); });
        print("library, after a removal", [&] { return library(service, all, true); });
        for (const std::size_t bytes : {0U, 1'024U, 2'048U, 4'096U, 8'192U, 12'288U, 16'000U})
            print("packets of " + std::to_string(bytes) + " bytes", [&] { return lists(service, path, all, bytes); });
    }
    ::unlink((path + ".log").c_str());
    ::unlink((path + ".lock").c_str());
    return EXIT_SUCCESS;
}
