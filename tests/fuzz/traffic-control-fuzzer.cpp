// The traffic-control service with clients that say what they like, in any order, and leave when they like.
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/fake-sockets.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "rlv/protocol.h"
#include "rlv/service/service.h"

namespace {

using rlv::protocol::Reply;
using rlv::protocol::Request;

constexpr std::size_t kClients = 4;
constexpr std::size_t kMaxSteps = 48;

// What a client must be told is a packet that it understands.
void checkReplies(const fuzz::FakeSocket &socket) {
    for (const auto &packet : socket.sent) {
        const auto reply = rlv::protocol::decodeReply(packet);
        fuzz::require(reply && packet.size() <= rlv::protocol::kMaxPacketBytes, "a reply is one", packet);
        fuzz::require(reply->kind != Reply::Kind::committed || (reply->code == 0) == reply->text.empty(),
                      "a command that is refused, and no other, gets a reason", packet);
    }
}

// Plays the clients, one step of the input at a time.
class Clients {
public:
    Clients(fuzz::Input input, support::EventLoop &loop) : input_(input), loop_(loop) {}

    void act() {
        if (input_.atEnd() || steps_++ == kMaxSteps)
            return loop_.stop();
        const std::uint8_t word = input_.byte();
        Client &client = clients_[word >> 6];
        step(word & 0xfU, client, (word & 0x30U) != 0);
    }

    void check() const {
        for (const Client &client : clients_) {
            if (client.fd >= 0)
                checkReplies(fuzz::socketAt(client.fd));
        }
    }

private:
    struct Client {
        int fd = -1;
    };

    void step(unsigned what, Client &client, bool isRoot) {
        switch (what) {
        case 0:
            return say(client, isRoot, std::string(input_.take(input_.byte())));
        case 1:
            return ask(client, isRoot, Request::Kind::open, rlv::protocol::kVersion, {});
        case 2:
            return ask(client, isRoot, Request::Kind::close, 0, {});
        case 3:
            return ask(client, isRoot, Request::Kind::query, input_.byte(), {});
        case 4:
            return sayList(client, isRoot);
        case 5:
            return leave(client);
        case 6:
            return fuzz::passTime(std::chrono::milliseconds(input_.number<std::uint16_t>()));
        case 7:
            return read(client, input_.byte());
        default:
            return ask(client, isRoot, Request::Kind::commit, 0, std::string(input_.takeUntil('\n')));
        }
    }

    void say(Client &client, bool isRoot, const std::string &packet) {
        if (client.fd < 0 || fuzz::socketAt(client.fd).isClosed) {
            check();
            fuzz::FakeSocket socket;
            socket.keepsBoundaries = true;
            socket.user = isRoot ? 0 : 1000;
            socket.process = 7;
            client.fd = fuzz::connectClient(socket);
        }
        if (!packet.empty())
            fuzz::socketAt(client.fd).incoming.push_back(packet);
    }

    void ask(Client &client, bool isRoot, Request::Kind kind, std::uint64_t number, std::string text) {
        say(client, isRoot, rlv::protocol::encode(Request{kind, number, std::move(text)}));
    }

    void sayList(Client &client, bool isRoot) {
        rlv::protocol::CommandList list;
        for (unsigned left = input_.byte() % 8U; left > 0; --left) {
            if (!list.add(input_.takeUntil('\n')))
                break;
        }
        say(client, isRoot, list.packet());
    }

    static void leave(Client &client) {
        if (client.fd >= 0)
            fuzz::socketAt(client.fd).peerLeft = true;
    }

    static void read(Client &client, std::size_t packets) {
        if (client.fd >= 0)
            fuzz::socketAt(client.fd).room = packets;
    }

    fuzz::Input input_;
    support::EventLoop &loop_;
    std::array<Client, kClients> clients_;
    std::size_t steps_ = 0;
};

void checkState(rlv::Table &table) {
    rlv::ServiceState state;
    table.describe(state);
    for (const auto &chain : state.chains)
        fuzz::require(chain.name.rfind("VPK-", 0) == 0, "chains are the service's own", chain.name);
    for (const auto &hook : state.hooks)
        fuzz::require(hook.target.rfind("VPK-", 0) == 0, "hooks lead to the service's own", hook.target);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::unique_ptr<Clients> clients;
    fuzz::resetSockets([&clients] { clients->act(); });
    support::EventLoop loop;
    clients = std::make_unique<Clients>(fuzz::Input(data, size), loop);
    const auto table = rlv::makeSimulatedTable("VPK-");
    rlv::ServiceOptions options;
    options.users = {1000};
    options.resolveNames = false;
    options.simulated = true;
    options.maxClients = 3;
    options.maxClientsPerUser = 2;
    {
        const rlv::Service service(loop, *table, support::UniqueFd(fuzz::makeListener()), options);
        loop.run();
    }
    clients->check();
    checkState(*table);
    return 0;
}
