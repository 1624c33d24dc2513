#include "fake-service.h"

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace hosttest {

namespace {

using rlv::protocol::Reply;
using rlv::protocol::Request;

constexpr const char *kPath = "/run/fake-service";

std::vector<std::string> packets(Reply::Kind kind, std::uint64_t number) {
    return {rlv::protocol::encode(Reply{kind, 0, number, {}})};
}

} // namespace

FakeService::FakeService() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kPath, sizeof address.sun_path - 1);
    ::unlink(kPath);
    listener_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    int ends[2] = {-1, -1};
    const bool isUp = ::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                      ::listen(listener_.get(), 8) == 0 && ::pipe2(ends, O_CLOEXEC) == 0;
    if (!isUp)
        throw std::runtime_error("no service can be played here");
    end_[0].reset(ends[0]);
    end_[1].reset(ends[1]);
    answers_.state.serviceId = answers_.names.serviceId = 1;
    rlv::setSocketPath(kPath);
    thread_ = std::thread([this] { serve(); });
}

FakeService::~FakeService() {
    end_[1].reset();
    thread_.join();
    ::unlink(kPath);
}

void FakeService::change(const std::function<void(Answers &)> &how) {
    const std::lock_guard<std::mutex> lock(mutex_);
    how(answers_);
}

std::vector<Asked> FakeService::asked() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(asked_, {});
}

std::vector<std::string> FakeService::askedOfNames() {
    constexpr const char *kWords[] = {"look", "list", "announce", "announceAll", "retain"};
    std::vector<std::string> words;
    for (const auto &one : asked()) {
        if (one.kind != Request::Kind::names)
            continue;
        std::string text = kWords[static_cast<std::size_t>(one.names.about)];
        for (const auto &name : one.names.names)
            text += " " + name;
        words.push_back(text);
    }
    return words;
}

void FakeService::serve() {
    std::vector<Client> clients;
    for (;;) {
        std::vector<pollfd> polled{{end_[0].get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        for (const auto &client : clients)
            polled.push_back({client.fd.get(), POLLIN, 0});
        ::poll(polled.data(), polled.size(), -1);
        if (polled[0].revents != 0)
            return;
        for (std::size_t i = clients.size(); i > 0; --i) {
            if (polled[i + 1].revents != 0 && !serve(clients[i - 1]))
                clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i - 1));
        }
        if (polled[1].revents != 0)
            clients.push_back({support::UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), {}});
    }
}

bool FakeService::serve(Client &client) {
    std::string packet(rlv::protocol::kMaxPacketBytes, '\0');
    const ssize_t size = ::recv(client.fd.get(), packet.data(), packet.size(), 0);
    packet.resize(static_cast<std::size_t>(size > 0 ? size : 0));
    Request request;
    if (!rlv::protocol::decodeRequest(packet, request))
        return false;
    for (const auto &reply : repliesTo(client, request))
        ::send(client.fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    return true;
}

std::vector<std::string> FakeService::repliesTo(Client &client, const Request &request) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Asked asked{request.kind, request.number, {}, {}};
    std::vector<std::string> replies;
    std::string_view list = request.text;
    switch (request.kind) {
    case Request::Kind::open:
    case Request::Kind::rehearse:
        return packets(Reply::Kind::opened, ++opened_);
    case Request::Kind::commit:
        asked.commands = {request.text};
        replies = packets(Reply::Kind::committed, 0);
        break;
    case Request::Kind::close:
        asked.commands.swap(client.commands);
        replies = packets(Reply::Kind::closed, answers_.failedOnClosing);
        break;
    case Request::Kind::query:
        replies = rlv::protocol::encodeState(answers_.state);
        break;
    case Request::Kind::names:
        asked.names = rlv::protocol::decodeNamesRequest(request).value_or(rlv::protocol::NamesRequest());
        replies = rlv::protocol::encodeState(answers_.names);
        break;
    case Request::Kind::list:
    case Request::Kind::compare:
        while (!list.empty())
            client.commands.emplace_back(rlv::protocol::takeCommand(list));
        if (request.kind == Request::Kind::list || (request.number & rlv::protocol::kMoreFollow) != 0)
            return {};
        asked.commands = std::exchange(client.commands, {});
        replies = rlv::protocol::encodeState(answers_.comparison);
        break;
    case Request::Kind::watch:
        replies = packets(Reply::Kind::watched, answers_.state.serviceId);
        break;
    case Request::Kind::remove:
        break;
    }
    asked_.push_back(std::move(asked));
    return replies;
}

} // namespace hosttest
