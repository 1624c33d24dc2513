#include "rlvd-process.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gtest/gtest.h>

namespace rlvd {
namespace {

std::vector<std::string> with(std::vector<std::string> options, const char *option) {
    options.emplace_back(option);
    return options;
}

} // namespace

std::vector<std::string> words(const std::vector<std::string> &options) {
    std::vector<std::string> all = {process::built("rlvd"), "--socket", kSocket, "--log-stderr"};
    all.insert(all.end(), options.begin(), options.end());
    return all;
}

process::Result ended(const std::vector<std::string> &options, const process::Options &how) {
    return process::capture(words(options), how);
}

Service::Service(const std::vector<std::string> &options, const process::Options &how) : child_(words(options), how) {
    rlv::setSocketPath(kSocket);
    EXPECT_TRUE(child_.waitReady([this] { return log().find("serving") != std::string::npos; })) << log();
}

SimulatedService::SimulatedService(std::vector<std::string> options)
    : Service(with(std::move(options), "--simulate")) {}

Client::Client() { EXPECT_EQ(0, rlv_initialize(&handle_)); }

Client::~Client() { rlv_deinitialize(handle_); }

std::string Client::commit(const std::string &options) const {
    int code = -1;
    char *message = nullptr;
    const int result = rlv_iptables_commit(handle_, options.c_str(), &code, &message);
    std::string answer = std::to_string(code) + ": " + (message != nullptr ? message : "");
    std::free(message);
    EXPECT_EQ(0, result) << answer;
    return answer;
}

RawClient::RawClient() : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kSocket, sizeof address.sun_path - 1);
    EXPECT_EQ(0, ::connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
}

bool RawClient::send(const std::string &packet, int flags) {
    return ::send(fd_.get(), packet.data(), packet.size(), MSG_NOSIGNAL | flags) >= 0;
}

bool RawClient::send(rlv::protocol::Request::Kind kind, std::uint64_t number, const std::string &text, int flags) {
    return send(rlv::protocol::encode(rlv::protocol::Request{kind, number, text}), flags);
}

std::optional<rlv::protocol::Reply> RawClient::receive() {
    std::string packet(rlv::protocol::kMaxPacketBytes, '\0');
    const ssize_t size = ::recv(fd_.get(), packet.data(), packet.size(), 0);
    packet.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return rlv::protocol::decodeReply(packet);
}

std::uint64_t RawClient::open() {
    send(rlv::protocol::Request::Kind::open, rlv::protocol::kVersion);
    return receive().value_or(rlv::protocol::Reply{}).number;
}

rlv::ConnectionOutcome outcomeOf(std::uint64_t number) {
    for (const auto &outcome : rlv::query(number - 1).connections) {
        if (outcome.number == number)
            return outcome;
    }
    ADD_FAILURE() << "nothing is known of connection " << number;
    return {};
}

std::uint64_t rulesOf(const std::string &chain) {
    for (const auto &state : rlv::query(0).chains) {
        if (state.name == chain)
            return state.rules;
    }
    return 0;
}

void replaceFile(const std::string &path, const std::string &text) {
    const std::string mine = "/run/instead-of-" + path.substr(path.find_last_of('/') + 1);
    std::ofstream(mine) << text;
    ASSERT_EQ(0, ::chmod(mine.c_str(), 0644));
    ASSERT_EQ(0, ::mount(mine.c_str(), path.c_str(), nullptr, MS_BIND, nullptr))
        << path << ": " << std::strerror(errno);
}

} // namespace rlvd
