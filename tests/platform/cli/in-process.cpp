#include "in-process.h"

#include <atomic>
#include <cstdio>
#include <iostream>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "cli/terminal.h"
#include "host/remarks.h"
#include "support/unix-socket.h"

namespace clitest {

using mavo::rmi::Message;
using mavo::rmi::Reply;
using mavo::rmi::Status;
using support::UniqueFd;

namespace {

UniqueFd listening() {
    ::unlink(kSocket); // of the host before
    const auto address = support::UnixAddress::ofPath(kSocket);
    UniqueFd socket = support::newUnixSocket(SOCK_STREAM);
    if (!address || !support::bindSocket(socket, *address) || !support::startListening(socket, *address, {0600}))
        throw std::runtime_error("the scripted host cannot listen");
    return socket;
}

// Fewer when the connection ends before.
std::string receive(const UniqueFd &socket, std::size_t size) {
    std::string bytes(size, '\0');
    if (size == 0)
        return bytes; // the call would wait for one
    const ssize_t got = ::recv(socket.get(), bytes.data(), size, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

// A standard stream that is something else meanwhile.
class Redirected {
public:
    Redirected(int stream, int file) : stream_(stream), before_(::dup(stream)) {
        std::fflush(nullptr);
        ::dup2(file, stream);
    }
    ~Redirected() {
        std::fflush(nullptr);
        ::dup2(before_.get(), stream_);
    }
    Redirected(const Redirected &) = delete;
    Redirected &operator=(const Redirected &) = delete;

private:
    int stream_;
    UniqueFd before_;
};

std::atomic<int> terminalInUse{-1}; // where a person would sit

UniqueFd newFile() { return UniqueFd(::memfd_create("captured", MFD_CLOEXEC)); }

// All of a file; of a terminal that nobody has open any more, what stood there.
std::string contentOf(const UniqueFd &file) {
    std::string content;
    char buffer[4096];
    for (ssize_t size = 0; (size = ::read(file.get(), buffer, sizeof buffer)) > 0;)
        content.append(buffer, static_cast<std::size_t>(size));
    return content;
}

// As main() does it.
int statusAfter(Add add, const Words &words) try {
    CLI::App app;
    cli::Session session;
    session.socket = kSocket;
    add(app, session);
    std::vector<const char *> arguments{"vpkctl"};
    for (const auto &word : words)
        arguments.push_back(word.c_str());
    app.parse(static_cast<int>(arguments.size()), arguments.data());
    return session.exitStatus;
} catch (const cli::Exit &exit) {
    cli::say(exit.what());
    return exit.status();
}

} // namespace

Reply replyOf(int value, const std::vector<std::string> &notes) {
    return {Status::ok, bodyOf(value), {}, host::encode({{}, notes})};
}

Reply replyOf(const std::string &value, const std::vector<std::string> &notes) {
    return {Status::ok, bodyOf(std::vector<std::string>{value}), {}, host::encode({{}, notes})};
}

Reply refusal(Status status, const std::string &error) { return {status, {}, error, {}}; }

std::string bodyOf(int value) {
    Message message;
    message.write(value);
    return message.body();
}

std::string bodyOf(const std::vector<std::string> &values) {
    Message message;
    for (const auto &value : values)
        message.write(value);
    return message.body();
}

bool operator==(const Call &one, const Call &other) { return one.method == other.method && one.body == other.body; }

std::ostream &operator<<(std::ostream &stream, const Call &call) { return stream << call.method << ": " << call.body; }

ScriptedHost::ScriptedHost(Answers answers) : answers_(std::move(answers)), listener_(listening()) {
    thread_ = std::thread([this] { serve(); });
}

ScriptedHost::ScriptedHost(const std::string &method, const Reply &reply)
    : ScriptedHost(Answers{{method, [reply] { return reply; }}}) {}

ScriptedHost::~ScriptedHost() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
    ::unlink(kSocket);
}

std::vector<Call> ScriptedHost::calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

void ScriptedHost::serve() {
    while (const UniqueFd client{::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)})
        answerOne(client);
}

void ScriptedHost::answerOne(const UniqueFd &client) {
    const auto head = mavo::rmi::decodeRequestHead(receive(client, mavo::rmi::kRequestHeadBytes));
    if (!head)
        return;
    const std::string name = receive(client, head->nameBytes);
    const Call call{mavo::rmi::splitRequestName(name).method, receive(client, head->bodyBytes)};
    {
        const std::lock_guard lock(mutex_);
        calls_.push_back(call);
    }
    const auto answer = answers_.find(call.method);
    const std::string frame =
        mavo::rmi::encodeReply(answer == answers_.end() ? refusal(Status::unknownMethod, "") : answer->second());
    ::send(client.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
}

Written captured(const std::function<void()> &action) {
    const UniqueFd output = newFile();
    const UniqueFd errors = newFile();
    {
        const UniqueFd nothing = newFile();
        const Redirected streams[] = {{0, nothing.get()}, {1, output.get()}, {2, errors.get()}};
        action();
    }
    ::lseek(output.get(), 0, SEEK_SET);
    ::lseek(errors.get(), 0, SEEK_SET);
    return {contentOf(output), contentOf(errors)};
}

bool waitForOutputOnTerminal() {
    constexpr int kDeadlineMs = 20'000;
    pollfd wanted{terminalInUse, POLLIN, 0};
    return ::poll(&wanted, 1, kDeadlineMs) == 1;
}

std::string capturedOnTerminal(const std::function<void()> &action, const std::string &answer) {
    termios silent{}; // what is typed does not appear
    silent.c_iflag = ICRNL;
    silent.c_oflag = OPOST | ONLCR;
    silent.c_cflag = CS8 | CREAD;
    silent.c_lflag = ICANON;
    silent.c_cc[VEOF] = '\4';
    int master = -1;
    int slave = -1;
    if (::openpty(&master, &slave, nullptr, &silent, nullptr) != 0 ||
        ::write(master, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size()))
        throw std::runtime_error("no terminal to be had");
    const UniqueFd person(master);
    terminalInUse = master;
    {
        const UniqueFd terminal(slave);
        const Redirected streams[] = {{0, slave}, {1, slave}, {2, slave}};
        action();
    }
    std::clearerr(stdin);
    return contentOf(person);
}

Ran run(Add add, const Words &words, const std::string &input) {
    Ran ran;
    std::stringbuf given(input);
    auto *const before = std::cin.rdbuf(&given);
    const Written written = captured([&] { ran.status = statusAfter(add, words); });
    std::cin.rdbuf(before);
    ran.output = written.output;
    ran.errors = written.errors;
    return ran;
}

Ran runOnTerminal(Add add, const Words &words, const std::string &answer) {
    Ran ran;
    ran.output = capturedOnTerminal([&] { ran.status = statusAfter(add, words); }, answer);
    return ran;
}

Ended ended(const std::function<void()> &action) {
    try {
        action();
    } catch (const cli::Exit &exit) {
        return {exit.status(), exit.what()};
    }
    return {};
}

bool operator==(const Ended &one, const Ended &other) { return one.status == other.status && one.line == other.line; }

std::ostream &operator<<(std::ostream &stream, const Ended &end) { return stream << end.status << ": " << end.line; }

} // namespace clitest
