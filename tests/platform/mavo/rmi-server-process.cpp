#include "rmi-server-process.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "mavo/rmi-client.h"
#include "mavo/rmi-server.h"
#include "support/unix-socket.h"

namespace rmitest {

namespace {

using mavo::rmi::Client;
using mavo::rmi::Message;
using mavo::rmi::MethodContext;
using mavo::rmi::Privileges;
using mavo::rmi::Reply;
using mavo::rmi::Server;
using mavo::rmi::ServerLimits;
using mavo::rmi::Service;
using mavo::rmi::Status;
using support::UniqueFd;

constexpr std::chrono::seconds kDeadline{10};
const std::string kPrivilegesFile = "/run/privileges";

int openAtOnce(int count) {
    std::vector<UniqueFd> files;
    for (int i = 0; i < count; ++i) {
        files.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!files.back())
            return i;
    }
    return count;
}

void addMethods(Service &service, const std::function<int()> &connections) {
    const std::string open = "http://vpk/privilege/open";
    service.setMethodHandler<std::string, std::string>(open, "Echo", [](std::string &text) { return text; });
    service.setMethodHandler<std::string, int>(
        open, "Blob", [](int &size) { return std::string(static_cast<std::size_t>(size), 'b'); });
    service.setMethodHandler<int, int>(open, "Sleep",
                                       [](int &milliseconds) { return ::poll(nullptr, 0, milliseconds); });
    service.setMethodHandler<int, int>(open, "OpenFiles", [](int &count) { return openAtOnce(count); });
    service.setMethodHandler<int>(open, "Connections", connections);
    service.setMethodHandler<int>(open, "Throw", []() -> int { throw std::runtime_error("two\nlines"); });
    service.setMethodHandler<int>(open, "ThrowNoText", []() -> int { throw std::runtime_error(""); });
    service.setMethodHandler<int, std::string>("http://vpk/privilege/secret", "Secret",
                                               [](std::string &) { return 1; });
}

void serve(UniqueFd listener, int stop, const ServerLimits &limits,
           const std::function<void(Server::Find &)> &changeFind, int &calls) {
    support::EventLoop loop;
    loop.watch(stop, EPOLLIN, [&loop](std::uint32_t) { loop.stop(); });
    std::unique_ptr<Server> server;
    Service service;
    addMethods(service, [&server] { return static_cast<int>(server->descriptors().size()) - 1; });
    Server::Find find = [&service](const std::string &name) { return service.find(name); };
    if (changeFind)
        changeFind(find);
    server = std::make_unique<Server>(
        loop, std::move(listener), Privileges::load(kPrivilegesFile), limits, find,
        [&calls](const mavo::rmi::Caller &, const std::string &, const MethodContext &method, Message &request) {
            ++calls;
            return mavo::rmi::invokeMethod(method, request);
        });
    loop.run();
}

void limitDescriptors(int count) {
    const rlimit limit{static_cast<rlim_t>(count), static_cast<rlim_t>(count)};
    if (count > 0 && ::setrlimit(RLIMIT_NOFILE, &limit) != 0)
        ::_exit(90);
}

bool waitFor(int socket, short events) {
    pollfd wanted{socket, events, 0};
    return ::poll(&wanted, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())) > 0;
}

} // namespace

ServerProcess::ServerProcess(const ServerLimits &limits, int descriptorLimit,
                             const std::function<void(Server::Find &)> &changeFind)
    : calls_(
          static_cast<int *>(::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    std::ofstream(kPrivilegesFile) << "/privilege/open " << kUser << "\n";
    std::array<int, 2> pipe{};
    EXPECT_EQ(0, ::pipe2(pipe.data(), O_CLOEXEC));
    stop_.reset(pipe[1]);
    const UniqueFd stopped(pipe[0]);
    UniqueFd listener = mavo::rmi::listenAt(kPath, 0666);
    child_ = ::fork();
    if (child_ != 0)
        return;
    stop_.reset();
    try {
        limitDescriptors(descriptorLimit);
        serve(std::move(listener), stopped.get(), limits, changeFind, *calls_);
    } catch (const std::exception &) {
        ::_exit(91);
    }
    ::_exit(0);
}

ServerProcess::~ServerProcess() {
    stop_.reset();
    int status = 0;
    EXPECT_EQ(child_, ::waitpid(child_, &status, 0));
    EXPECT_EQ(0, status) << "the server ended badly";
    ::munmap(calls_, sizeof(int));
}

std::chrono::milliseconds ServerProcess::processorTime() const {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(0, ::clock_getcpuclockid(child_, &clock));
    EXPECT_EQ(0, ::clock_gettime(clock, &time));
    return std::chrono::milliseconds(time.tv_sec * 1000 + time.tv_nsec / 1'000'000);
}

std::size_t ServerProcess::dataBytes() const {
    std::ifstream status("/proc/" + std::to_string(child_) + "/status");
    for (std::string word; status >> word;) {
        std::size_t kibibytes = 0;
        if (word == "VmData:" && status >> kibibytes)
            return kibibytes * 1024;
    }
    ADD_FAILURE() << "no VmData";
    return 0;
}

int ServerProcess::calls() const { return *calls_; }

RawClient::RawClient() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    EXPECT_TRUE(support::connectSocket(socket_, support::UnixAddress::ofPath(kPath).value()));
}

bool RawClient::send(const std::string &bytes) const {
    std::size_t sent = 0;
    while (sent < bytes.size() && waitFor(socket_.get(), POLLOUT)) {
        const ssize_t now =
            ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (now < 0 && errno != EAGAIN)
            return false;
        sent += now > 0 ? static_cast<std::size_t>(now) : 0;
    }
    return sent == bytes.size();
}

void RawClient::endSending() const { ::shutdown(socket_.get(), SHUT_WR); }

std::string RawClient::receive(std::size_t size) const {
    std::string bytes;
    std::array<char, 4096> chunk{};
    while (bytes.size() < size && waitFor(socket_.get(), POLLIN)) {
        const ssize_t got = ::recv(socket_.get(), chunk.data(), std::min(chunk.size(), size - bytes.size()), 0);
        if (got <= 0)
            break;
        bytes.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return bytes;
}

std::optional<Reply> RawClient::reply() const {
    const auto length = mavo::rmi::decodeReplyHead(receive(mavo::rmi::kReplyHeadBytes));
    return length ? mavo::rmi::decodeReply(receive(*length)) : std::nullopt;
}

bool RawClient::answered() const {
    pollfd wanted{socket_.get(), POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

bool RawClient::atEnd() const {
    char byte = 0;
    return waitFor(socket_.get(), POLLIN) && ::recv(socket_.get(), &byte, 1, MSG_DONTWAIT) <= 0;
}

std::string requestBytes(const std::string &method, const std::string &body) {
    return mavo::rmi::encodeRequestHead(method, body.size()) + body;
}

std::string body(const std::string &argument) {
    Message message;
    message.write(argument);
    return message.body();
}

std::string body(int argument) {
    Message message;
    message.write(argument);
    return message.body();
}

std::string echoOnce(const std::string &text) {
    const Reply reply = Client(kPath).call("Echo", Message(body(text)));
    if (reply.status != Status::ok)
        return "status " + std::to_string(static_cast<int>(reply.status)) + ": " + reply.error;
    Message message(reply.body);
    std::string echo;
    message.read(echo);
    return echo;
}

int intReply(const Reply &reply) {
    EXPECT_EQ(Status::ok, reply.status) << reply.error;
    Message message(reply.body);
    int value = -1;
    message.read(value);
    return value;
}

int asUser(uid_t uid, const std::function<int()> &action) {
    const pid_t child = ::fork();
    if (child == 0) {
        int result = 100;
        try {
            if (::setgroups(0, nullptr) == 0 && ::setresgid(uid, uid, uid) == 0 && ::setresuid(uid, uid, uid) == 0)
                result = action();
        } catch (const std::exception &) {
        }
        ::_exit(result);
    }
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool eventually(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        ::poll(nullptr, 0, 5);
    }
    return true;
}

} // namespace rmitest
