#include <array>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <sys/poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "mavo/rmi-client.h"
#include "mavo/rmi-server.h"
#include "rmi-server-process.h"

namespace {

using mavo::rmi::Client;
using mavo::rmi::kBodyLimitBytes;
using mavo::rmi::Message;
using mavo::rmi::Reply;
using mavo::rmi::ServerLimits;
using mavo::rmi::Status;
using rmitest::asUser;
using rmitest::body;
using rmitest::echoOnce;
using rmitest::eventually;
using rmitest::intReply;
using rmitest::kOther;
using rmitest::kPath;
using rmitest::kUser;
using rmitest::RawClient;
using rmitest::requestBytes;
using rmitest::ServerProcess;
using std::chrono::milliseconds;

ServerLimits limitsOf(int connections, int perUser = 16, int reserved = 0) {
    ServerLimits limits;
    limits.connections = connections;
    limits.connectionsPerUser = perUser;
    limits.reservedDescriptors = reserved;
    return limits;
}

ServerLimits timeouts(int requestMs, int idleMs) {
    ServerLimits limits;
    limits.requestTimeout = milliseconds(requestMs);
    limits.idleTimeout = milliseconds(idleMs);
    return limits;
}

std::string head(std::uint32_t magic, std::uint32_t nameBytes, std::uint32_t bodyBytes) {
    return body(static_cast<int>(magic)) + body(static_cast<int>(nameBytes)) + body(static_cast<int>(bodyBytes));
}

int connectionsOf(Client &client) { return intReply(client.call("Connections", Message())); }

TEST(AServer, HasTheseLimitsUnlessSaidOtherwise) {
    const ServerLimits limits;
    EXPECT_EQ(64, limits.connections);
    EXPECT_EQ(16, limits.connectionsPerUser);
    EXPECT_EQ(16, limits.connectionsWithoutPrivilege);
    EXPECT_EQ(64, limits.reservedDescriptors);
    EXPECT_EQ(4 * kBodyLimitBytes, limits.bodyBytes);
    EXPECT_EQ(16'777'216U, limits.replyBytes);
    EXPECT_EQ(65'536U, mavo::rmi::kSmallBodyBytes);
    EXPECT_EQ(std::chrono::seconds(10), limits.requestTimeout);
    EXPECT_EQ(std::chrono::minutes(1), limits.idleTimeout);
}

TEST(AServer, AnswersAnyNumberOfRequestsOnOneConnection) {
    const ServerProcess server;
    Client client(kPath);
    for (int i = 0; i < 50; ++i) {
        const std::string text(static_cast<std::size_t>(i) * 1000, 'e');
        const Reply reply = client.call("Echo", Message(body(text)));
        EXPECT_EQ(Status::ok, reply.status) << reply.error;
        EXPECT_EQ(body(text), reply.body);
    }
    EXPECT_EQ(50, server.calls());
}

TEST(AServer, AnswersRequestsThatComeAllAtOnceInTheirOrder) {
    const ServerProcess server;
    const RawClient client;
    ASSERT_TRUE(
        client.send(requestBytes("Echo", body("1")) + requestBytes("Nothing", "xx") + requestBytes("Echo", body("3"))));
    EXPECT_EQ(body("1"), client.reply().value_or(Reply()).body);
    EXPECT_EQ(Status::unknownMethod, client.reply().value_or(Reply()).status);
    EXPECT_EQ(body("3"), client.reply().value_or(Reply()).body);
}

TEST(AServer, PutsTornFramesTogether) {
    const ServerProcess server;
    const RawClient client;
    for (const char byte : requestBytes("Echo", body("torn")))
        ASSERT_TRUE(client.send(std::string(1, byte)));
    EXPECT_EQ(body("torn"), client.reply().value_or(Reply()).body);
}

TEST(AServer, TakesABodyAsLargeAsTheLimit) {
    const ServerProcess server;
    EXPECT_EQ(kBodyLimitBytes - 4, echoOnce(std::string(kBodyLimitBytes - 4, 'x')).size());
}

TEST(AServer, TellsWhatCameOfACall) {
    const ServerProcess server;
    Client client(kPath);
    const struct {
        const char *method;
        std::string body;
        Status status;
        const char *error;
    } cases[] = {
        {"Throw", "", Status::exception, "two lines"},
        {"ThrowNoText", "", Status::exception, "unknown exception"},
        {"Nothing", "", Status::unknownMethod, "no such method"},
        {"", "", Status::unknownMethod, "no such method"},
        {"Echo", "", Status::malformed, "Message ends before an integer"},
        {"Echo", body("x").substr(0, 4), Status::malformed, "Message ends before a string"},
        {"Echo", body("x") + "y", Status::ok, ""}, // whether it is refused is the handler's own matter
        {"Echo", body("x"), Status::ok, ""},
    };
    for (const auto &call : cases) {
        const Reply reply = client.call(call.method, Message(call.body));
        EXPECT_EQ(call.status, reply.status) << call.method;
        EXPECT_EQ(call.error, reply.error) << call.method;
    }
}

TEST(AServer, EndsTheConnectionAfterABadHeadAndSaysWhy) {
    const ServerProcess server;
    const std::uint32_t magic = mavo::rmi::kRequestMagic;
    for (const std::string &bytes :
         {std::string("G"), std::string("RMI2"), std::string(100'000, 'z'), head(magic, 257, 0),
          head(magic, 4, kBodyLimitBytes + 1) + "Echo", head(magic, 0xffffffffU, 0), head(magic, 4, 0xffffffffU)}) {
        const RawClient client;
        client.send(bytes);
        EXPECT_EQ(Status::malformed, client.reply().value_or(Reply()).status) << bytes.substr(0, 12);
        EXPECT_TRUE(client.atEnd());
    }
    EXPECT_EQ(0, server.calls());
    EXPECT_EQ("good", echoOnce("good"));
}

TEST(AServer, LetsAClientSendTheBodyThatItRefusedForItsSize) {
    const ServerProcess server;
    const RawClient client;
    EXPECT_TRUE(client.send(head(mavo::rmi::kRequestMagic, 4, kBodyLimitBytes + 1) + "Echo"));
    EXPECT_TRUE(client.send(std::string(kBodyLimitBytes + 1, 'x')));
    EXPECT_EQ(Status::malformed, client.reply().value_or(Reply()).status);
}

TEST(AServer, ReadsTwoLargestBodiesAfterABadHeadAndNoMore) {
    const ServerProcess server;
    const RawClient client;
    const std::string mebibyte(std::size_t{1024} * 1024, 'z');
    int taken = 0;
    while (taken < 20 && client.send(mebibyte))
        ++taken;
    EXPECT_GE(taken, 8);
    EXPECT_LE(taken, 10); // with what the socket holds
}

TEST(AServer, AnswersARequestThatEndsTooEarly) {
    const ServerProcess server;
    const std::string request = requestBytes("Echo", body("early"));
    for (std::size_t size = 1; size < request.size(); ++size) {
        const RawClient client;
        ASSERT_TRUE(client.send(request.substr(0, size)));
        client.endSending();
        EXPECT_EQ("request ends early", client.reply().value_or(Reply()).error) << size;
        EXPECT_TRUE(client.atEnd());
    }
    EXPECT_EQ(0, server.calls());
}

TEST(AServer, AnswersAClientThatSendsNothingAfterItsRequest) {
    const ServerProcess server;
    const RawClient client;
    ASSERT_TRUE(client.send(requestBytes("Echo", body("last"))));
    client.endSending();
    EXPECT_EQ(body("last"), client.reply().value_or(Reply()).body);
    EXPECT_TRUE(client.atEnd());
}

TEST(AServer, JudgesTheCallerByTheCredentialsOfTheSocket) {
    const ServerProcess server;
    const auto statusOf = [](const std::string &method) {
        return static_cast<int>(Client(kPath).call(method, Message(body("x"))).status);
    };
    const int ok = static_cast<int>(Status::ok);
    const int denied = static_cast<int>(Status::denied);
    EXPECT_EQ(ok, asUser(0, [&] { return statusOf("Secret"); }));
    EXPECT_EQ(ok, asUser(kUser, [&] { return statusOf("Echo"); }));
    EXPECT_EQ(denied, asUser(kUser, [&] { return statusOf("Secret"); }));
    EXPECT_EQ(denied, asUser(kOther, [&] { return statusOf("Echo"); }));
    EXPECT_EQ(2, server.calls());
}

TEST(AServer, RefusesByTheHeadBeforeTheBodyHasCome) {
    const ServerProcess server;
    EXPECT_EQ(0, asUser(kUser, [] {
                  const RawClient client;
                  client.send(mavo::rmi::encodeRequestHead("Secret", 1000));
                  const Reply reply = client.reply().value_or(Reply());
                  if (reply.status != Status::denied || reply.error != "needs the privilege /privilege/secret")
                      return 1;
                  client.send(std::string(1000, '\xff') + requestBytes("Echo", body("next")));
                  return client.reply().value_or(Reply()).body == body("next") ? 0 : 2;
              }));
    EXPECT_EQ(1, server.calls());
}

TEST(AServer, AnswersEarlyWhileAGoodClientStillSendsALargeBody) {
    const ServerProcess server;
    EXPECT_EQ(0, asUser(kUser, [] {
                  Client client(kPath);
                  const Message large(std::string(kBodyLimitBytes, 'x'));
                  for (const char *method : {"Secret", "Nothing", "Secret"}) {
                      if (client.call(method, large).error.empty())
                          return 1;
                  }
                  return client.call("Echo", Message(body("x"))).status == Status::ok ? 0 : 2;
              }));
    EXPECT_EQ(1, server.calls());
}

TEST(AServer, AsksForTheMethodAgainWhenTheBodyHasCome) {
    int asked = 0;
    const ServerProcess server({}, 0, [&asked](mavo::rmi::Server::Find &find) {
        find = [&asked, old = find](const std::string &name) { return ++asked == 2 ? nullptr : old(name); };
    });
    Client client(kPath);
    EXPECT_EQ(Status::unknownMethod, client.call("Echo", Message(body("x"))).status);
    EXPECT_EQ(Status::ok, client.call("Echo", Message(body("x"))).status);
    EXPECT_EQ(1, server.calls());
}

TEST(AServer, DoesNotTakeMemoryForBodiesThatAreOnlyAnnounced) {
    const ServerProcess server;
    ASSERT_EQ("warm", echoOnce("warm"));
    const std::size_t before = server.dataBytes();
    std::vector<std::unique_ptr<RawClient>> clients;
    clients.reserve(64);
    for (int i = 0; i < 32; ++i) {
        clients.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(clients.back()->send(mavo::rmi::encodeRequestHead("Echo", kBodyLimitBytes) + "x"));
    }
    ASSERT_EQ("after", echoOnce("after"));
    EXPECT_LT(server.dataBytes(), before + 2 * kBodyLimitBytes);
}

// Requests that announce a body of that size and send one byte of it.
class Announcements {
public:
    Announcements(int count, std::size_t bodyBytes) {
        for (int i = 0; i < count; ++i) {
            clients_.push_back(std::make_unique<RawClient>());
            clients_.back()->send(mavo::rmi::encodeRequestHead("Echo", bodyBytes) + "x");
        }
    }
    // How many the server lets go on; the others it answers as busy.
    int admitted() const {
        EXPECT_EQ("after", echoOnce("after"));
        int waiting = 0;
        for (const auto &client : clients_) {
            if (client->answered())
                EXPECT_EQ(Status::busy, client->reply().value_or(Reply()).status);
            else
                ++waiting;
        }
        return waiting;
    }

private:
    std::vector<std::unique_ptr<RawClient>> clients_;
};

TEST(AServer, TakesNoMoreLargeBodiesAtATimeThanItHasMemoryFor) {
    const ServerProcess server;
    const Announcements large(6, kBodyLimitBytes);
    EXPECT_EQ(4, large.admitted());
    EXPECT_EQ(3, Announcements(3, mavo::rmi::kSmallBodyBytes).admitted());
    EXPECT_EQ(0, Announcements(3, mavo::rmi::kSmallBodyBytes + 1).admitted());
}

TEST(AServer, GivesOneUserAQuarterOfTheMemoryForBodiesAndRootWhatIsLeft) {
    const ServerProcess server;
    EXPECT_EQ(2, asUser(kUser, [] { return Announcements(4, kBodyLimitBytes / 2).admitted(); }));
    const Announcements ofRoot(3, kBodyLimitBytes);
    EXPECT_EQ(3, ofRoot.admitted());
    EXPECT_EQ(0, asUser(kUser, [] { return Announcements(1, kBodyLimitBytes / 2).admitted(); }));
    EXPECT_EQ(1, Announcements(2, kBodyLimitBytes).admitted());
}

TEST(AServer, TakesAnotherLargeBodyWhenOneIsOver) {
    const ServerProcess server;
    const std::string text(kBodyLimitBytes - 100, 'x');
    for (int i = 0; i < 6; ++i)
        EXPECT_TRUE(echoOnce(text) == text) << i;
}

TEST(AServer, KeepsNothingOfABodyThatItRefuses) {
    const ServerProcess server;
    ASSERT_EQ("warm", echoOnce("warm"));
    const std::size_t before = server.dataBytes();
    const RawClient client;
    ASSERT_TRUE(client.send(mavo::rmi::encodeRequestHead("Nothing", kBodyLimitBytes)));
    ASSERT_TRUE(client.send(std::string(kBodyLimitBytes - 1, 'x')));
    ASSERT_EQ("after", echoOnce("after"));
    EXPECT_LT(server.dataBytes(), before + kBodyLimitBytes / 2);
    EXPECT_EQ(Status::unknownMethod, client.reply().value_or(Reply()).status);
}

TEST(AServer, ServesOthersWhileSomeAreSilentAtAnyStage) {
    const ServerProcess server;
    const std::string request = requestBytes("Echo", body("slow"));
    std::vector<std::unique_ptr<RawClient>> silent;
    for (std::size_t size = 0; size < request.size(); ++size) {
        silent.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(silent.back()->send(request.substr(0, size)));
    }
    EXPECT_EQ("quick", echoOnce("quick"));
    for (std::size_t size = 0; size < request.size(); ++size) {
        ASSERT_TRUE(silent[size]->send(request.substr(size)));
        EXPECT_EQ(body("slow"), silent[size]->reply().value_or(Reply()).body) << size;
    }
}

TEST(AServer, ServesOthersWhileOneDoesNotReadItsReplyAndGivesItUpInTheEnd) {
    const ServerProcess server(timeouts(10'000, 300));
    const RawClient lazy;
    constexpr int kSize = 8 * 1024 * 1024;
    ASSERT_TRUE(lazy.send(requestBytes("Blob", body(kSize))));
    EXPECT_EQ("quick", echoOnce("quick"));
    EXPECT_TRUE(eventually([] {
        Client client(kPath);
        return connectionsOf(client) == 1;
    }));
    EXPECT_LT(lazy.receive(kSize).size(), static_cast<std::size_t>(kSize));
}

TEST(AServer, WritesALargeReplyAsItIsTaken) {
    const ServerProcess server;
    const RawClient client;
    constexpr int kSize = 3'000'000;
    ASSERT_TRUE(client.send(requestBytes("Blob", body(kSize))));
    EXPECT_EQ("quick", echoOnce("quick"));
    EXPECT_EQ(body(std::string(kSize, 'b')), client.reply().value_or(Reply()).body);
}

TEST(AServer, EndsARequestThatTakesTooLongHoweverSteadilyItComes) {
    const ServerProcess server(timeouts(300, 60'000));
    const RawClient client;
    const std::string request = requestBytes("Echo", body(std::string(2'000, 'x')));
    bool taken = true;
    for (std::size_t i = 0; taken && i < request.size(); ++i) {
        taken = client.send(request.substr(i, 1));
        ::poll(nullptr, 0, 5);
    }
    EXPECT_FALSE(taken) << "ten seconds of sending";
    EXPECT_EQ("request not complete in time", client.reply().value_or(Reply()).error);
    EXPECT_TRUE(client.atEnd());
}

TEST(AServer, EndsIdleConnections) {
    const ServerProcess server(timeouts(10'000, 100));
    EXPECT_TRUE(RawClient().atEnd());
    const RawClient used;
    ASSERT_TRUE(used.send(requestBytes("Echo", body("x"))));
    EXPECT_EQ(Status::ok, used.reply().value_or(Reply{Status::busy, {}, {}, {}}).status);
    EXPECT_TRUE(used.atEnd());
}

TEST(AServer, DoesNotHoldTheTimeOfACallAgainstThoseWhoWaitForIt) {
    const ServerProcess server(timeouts(200, 200));
    const std::string request = requestBytes("Echo", body("patient"));
    const RawClient idle;
    const RawClient half;
    ASSERT_TRUE(half.send(request.substr(0, 6)));
    const RawClient sleeper;
    ASSERT_TRUE(sleeper.send(requestBytes("Sleep", body(1'000))));
    ASSERT_TRUE(eventually([&server] { return server.calls() == 1; }));
    ASSERT_TRUE(idle.send(request));
    ASSERT_TRUE(half.send(request.substr(6)));
    for (const RawClient *client : {&idle, &half})
        EXPECT_EQ(body("patient"), client->reply().value_or(Reply()).body);
    EXPECT_TRUE(sleeper.reply().has_value());
}

TEST(AServer, OutlivesClientsThatDieAtAnyStage) {
    const ServerProcess server;
    const std::string request = requestBytes("Blob", body(1'000'000));
    for (std::size_t size = 0; size <= request.size(); ++size)
        RawClient().send(request.substr(0, size));
    {
        const RawClient amidReply;
        ASSERT_TRUE(amidReply.send(request));
        EXPECT_EQ(1000U, amidReply.receive(1000).size());
    }
    Client client(kPath);
    EXPECT_TRUE(eventually([&client] { return connectionsOf(client) == 1; }));
}

TEST(AServer, RefusesMoreConnectionsThanTheLimitAndTakesNewOnesLater) {
    const ServerProcess server(limitsOf(8));
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<Client>(kPath));
        EXPECT_EQ(Status::ok, clients.back()->call("Echo", Message(body("x"))).status) << i;
    }
    EXPECT_EQ("status 5: too many connections", echoOnce("x"));
    clients.pop_back();
    EXPECT_TRUE(eventually([] { return echoOnce("again") == "again"; }));
}

// How many of that many connections at once are served; those refused must be told that the server is busy.
int servedOf(int attempts) {
    std::vector<std::unique_ptr<Client>> clients;
    int served = 0;
    for (int i = 0; i < attempts; ++i) {
        clients.push_back(std::make_unique<Client>(kPath));
        const Status status = clients.back()->call("Echo", Message(body("x"))).status;
        if (status != Status::ok && status != Status::busy)
            return 99;
        served += status == Status::ok ? 1 : 0;
    }
    return served;
}

TEST(AServer, GivesOneUserNoMoreThanHisShareOfTheConnections) {
    const ServerProcess server(limitsOf(64, 5));
    EXPECT_EQ(5, asUser(kUser, [] { return servedOf(20); }));
    EXPECT_EQ(20, asUser(0, [] { return servedOf(20); }));
}

// A process of that user that holds as many of `attempts` connections as it is given.
class Flood {
public:
    // Held is a connection on which a call has that outcome.
    Flood(uid_t uid, int attempts, Status outcome = Status::ok) {
        std::array<int, 2> ready{};
        std::array<int, 2> stop{};
        EXPECT_EQ(0, ::pipe(ready.data()));
        EXPECT_EQ(0, ::pipe(stop.data()));
        child_ = ::fork();
        if (child_ == 0) {
            ::close(stop[1]);
            ::_exit(asUser(uid, [&] { return hold(attempts, outcome, ready[1], stop[0]); }));
        }
        ::close(ready[1]);
        ::close(stop[0]);
        stop_.reset(stop[1]);
        char held = -1;
        EXPECT_EQ(1, ::read(ready[0], &held, 1));
        ::close(ready[0]);
        held_ = static_cast<unsigned char>(held);
    }
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;
    ~Flood() {
        stop_.reset();
        ::waitpid(child_, nullptr, 0);
    }
    int held() const { return held_; }

private:
    static int hold(int attempts, Status outcome, int ready, int stop) {
        std::vector<std::unique_ptr<Client>> clients;
        char held = 0;
        for (int i = 0; i < attempts; ++i) {
            clients.push_back(std::make_unique<Client>(kPath));
            held = static_cast<char>(held + (clients.back()->call("Echo", Message(body("x"))).status == outcome));
        }
        char end = 0;
        return ::write(ready, &held, 1) == 1 && ::read(stop, &end, 1) == 0 ? 0 : 1;
    }

    pid_t child_ = -1;
    support::UniqueFd stop_;
    int held_ = -1;
};

TEST(AServer, KeepsConnectionsForRootWhenOthersTakeAllTheyCan) {
    const ServerProcess server(limitsOf(16, 9));
    const Flood one(kUser, 20);
    const Flood other(kOther, 20);
    EXPECT_EQ(9, one.held());
    EXPECT_EQ(0, other.held()) << "calls of someone without any privilege";
    EXPECT_EQ(2, servedOf(5));
}

TEST(AServer, GivesAllAccountsWithoutAPrivilegeTogetherOneShare) {
    auto limits = limitsOf(64);
    limits.connectionsWithoutPrivilege = 6;
    const ServerProcess server(limits);
    std::vector<std::unique_ptr<Flood>> strangers;
    int held = 0;
    for (uid_t uid = kOther; uid < kOther + 6; ++uid) {
        strangers.push_back(std::make_unique<Flood>(uid, 16, Status::denied));
        held += strangers.back()->held();
    }
    EXPECT_EQ(6, held);
    EXPECT_EQ(16, asUser(kUser, [] { return servedOf(20); })) << "who holds a privilege has his share";
    while (!strangers.empty())
        strangers.pop_back(); // the later ones hold what the earlier ones wait for
}

TEST(AServer, CarriesOutNoCallWhileTooMuchOfItsRepliesIsNotRead) {
    ServerLimits limits;
    limits.replyBytes = 4'000'000;
    const ServerProcess server(limits);
    ASSERT_EQ("warm", echoOnce("warm"));
    const std::size_t before = server.dataBytes();
    std::vector<std::unique_ptr<RawClient>> lazy;
    for (int i = 0; i < 10; ++i) {
        lazy.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(lazy.back()->send(requestBytes("Blob", body(2'000'000))));
    }
    EXPECT_EQ("status 5: too many large replies are not read yet", echoOnce("x"));
    EXPECT_LT(server.dataBytes(), before + 40'000'000);
    lazy.clear();
    EXPECT_TRUE(eventually([] { return echoOnce("x") == "x"; }));
}

TEST(AServer, KeepsAReserveOfDescriptorsForTheProgramsOwnWork) {
    constexpr int kReserve = 12;
    const ServerProcess server(limitsOf(64, 16, kReserve), 40);
    std::vector<std::unique_ptr<Client>> clients;
    std::string last;
    while (last.empty() && clients.size() < 64) {
        clients.push_back(std::make_unique<Client>(kPath));
        last = clients.back()->call("Echo", Message(body("x"))).error;
    }
    EXPECT_EQ("too few descriptors left", last);
    EXPECT_GT(clients.size(), 8U);
    EXPECT_EQ(kReserve, intReply(clients.front()->call("OpenFiles", Message(body(kReserve)))));
    clients.resize(clients.size() / 2);
    EXPECT_TRUE(eventually([] { return echoOnce("again") == "again"; }));
}

TEST(AServer, WaitsIdlyForDescriptorsWhenThereAreNone) {
    const ServerProcess server(limitsOf(1000), 32);
    std::vector<std::unique_ptr<RawClient>> clients;
    clients.reserve(64);
    for (int i = 0; i < 40; ++i)
        clients.push_back(std::make_unique<RawClient>());
    ASSERT_TRUE(clients.front()->send(requestBytes("OpenFiles", body(1))));
    ASSERT_EQ(0, intReply(clients.front()->reply().value_or(Reply{Status::busy, {}, {}, {}})));
    const auto before = server.processorTime();
    ::poll(nullptr, 0, 1'000); // the time over which it is measured
    EXPECT_LT(server.processorTime() - before, milliseconds(300));
    ASSERT_TRUE(clients.back()->send(requestBytes("Echo", body("at last"))));
    clients.erase(clients.begin(), clients.begin() + 20);
    EXPECT_EQ(body("at last"), clients.back()->reply().value_or(Reply()).body);
}

TEST(AServer, SurvivesRandomBytes) {
    const ServerProcess server;
    std::mt19937 random(20240607); // NOLINT(cert-msc51-cpp,bugprone-random-generator-seed): the same every time
    const auto below = [&random](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    const std::string sound = requestBytes("Echo", body("sound")) + requestBytes("Secret", body("x"));
    Client good(kPath);
    for (int round = 0; round < 400; ++round) {
        const RawClient client;
        std::string bytes = sound;
        for (std::size_t changes = below(4); changes > 0; --changes)
            bytes[below(bytes.size())] = static_cast<char>(below(256));
        for (std::size_t extra = below(200) * below(2); extra > 0; --extra)
            bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(below(bytes.size())),
                         static_cast<char>(below(256)));
        client.send(bytes.substr(0, below(bytes.size())));
        if (below(2) == 0)
            client.endSending();
        ASSERT_EQ(body("good"), good.call("Echo", Message(body("good"))).body) << "round " << round;
    }
    EXPECT_TRUE(eventually([&good] { return connectionsOf(good) == 1; }));
}

} // namespace
