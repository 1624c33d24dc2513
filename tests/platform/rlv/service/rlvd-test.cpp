// The service over its real socket, in simulation.
#include "rlvd-process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <grp.h>
#include <iterator>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using process::Child;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;
using testing::HasSubstr;
using namespace rlvd;

constexpr uid_t kServed = 1; // Debian's "daemon", whose group has the same number
constexpr uid_t kNotServed = 2;

// The exit status of `body` in a child process of another account.
int asUser(uid_t user, gid_t group, const std::function<int()> &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        const bool changed =
            ::setgroups(0, nullptr) == 0 && ::setresgid(group, group, group) == 0 && ::setresuid(user, user, user) == 0;
        ::_exit(changed ? body() : 255);
    }
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return WEXITSTATUS(status);
}

int opened() {
    rlv_handle handle = 0;
    const int error = rlv_initialize(&handle);
    return error != 0 ? error : rlv_deinitialize(handle);
}

int queryError() {
    try {
        rlv::query(0);
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    return 0;
}

void expectOneLine(const std::string &text) { EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text; }

// ---- what is applied ----

TEST(TheService, AppliesCommandsAndTellsWhatStands) {
    SimulatedService service;
    Client client;
    EXPECT_EQ("0: ", client.commit("-N VPK-DENY"));
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j DROP"));
    EXPECT_EQ("0: ", client.commit("-A OUTPUT -j VPK-DENY"));
    EXPECT_EQ(0, client.close());
    const auto state = rlv::query(0);
    EXPECT_TRUE(state.simulated);
    EXPECT_NE(0U, state.serviceId);
    ASSERT_EQ(1U, state.chains.size());
    EXPECT_EQ("VPK-DENY", state.chains[0].name);
    EXPECT_EQ(1U, state.chains[0].rules);
    ASSERT_EQ(1U, state.hooks.size());
    EXPECT_EQ("OUTPUT", state.hooks[0].chain);
    EXPECT_EQ("VPK-DENY", state.hooks[0].target);
}

TEST(TheService, RefusesAnEmptySocketPath) {
    for (const char *const mode : {"--simulate", "--remove-tables"}) {
        const auto refused = process::capture({process::built("rlvd"), "--simulate", "--socket", "", mode});
        EXPECT_EQ(2, refused.status);
        EXPECT_THAT(refused.errors, HasSubstr("--socket: must be a path of 1 to 107 bytes"));
    }
}

TEST(TheService, RefusesWithIptablesCodesAndGoesOn) {
    SimulatedService service;
    const Client client;
    EXPECT_THAT(client.commit("-F VPK-DENY"), HasSubstr("1: "));
    EXPECT_THAT(client.commit("-t nat -F"), HasSubstr("2: "));
    EXPECT_THAT(client.commit(""), HasSubstr("2: "));
    EXPECT_EQ("0: ", client.commit("-N VPK-DENY"));
}

TEST(TheService, TakesChainsOfAnotherPrefix) {
    SimulatedService service({"--chain-prefix", "MY_"});
    const Client client;
    EXPECT_EQ("0: ", client.commit("-N MY_DENY"));
    EXPECT_THAT(client.commit("-N VPK-DENY"), HasSubstr("2: "));
}

TEST(TheService, RefusesAnOverlongTextAndGoesOn) {
    SimulatedService service;
    const Client client;
    EXPECT_THAT(client.commit("-F VPK-" + std::string(rlv::protocol::kMaxOptionsBytes, 'x')), HasSubstr("2: "));
    EXPECT_EQ("0: ", client.commit("-N VPK-DENY"));
}

TEST(TheService, RefusesATextOfManyTimesTheLimitAndGoesOn) {
    SimulatedService service;
    RawClient client;
    const auto number = client.open();
    ASSERT_TRUE(client.send(Request::Kind::commit, 0, std::string(100'000, 'x')));
    EXPECT_EQ(2, client.receive().value_or(Reply{}).code);
    client.send(Request::Kind::commit, 0, "-N VPK-DENY");
    EXPECT_EQ(0, client.receive().value_or(Reply{}).code);
    EXPECT_EQ(rlv::protocol::kMaxOptionsBytes, outcomeOf(number).failed.at(0).options.size());
}

// ---- who is served ----

TEST(TheService, ServesRootAndTheGivenAccountsAlone) {
    SimulatedService service({"--client-user", "daemon"});
    EXPECT_EQ(0, opened());
    EXPECT_EQ(0, asUser(kServed, kServed, opened));
    EXPECT_EQ(EACCES, asUser(kNotServed, kNotServed, opened)) << "kept out by the socket's mode";
    EXPECT_EQ(EACCES, asUser(kNotServed, kServed, opened)) << "kept out by its credentials";
    EXPECT_EQ(EACCES, asUser(kNotServed, kServed, queryError));
    EXPECT_THAT(service.log(), HasSubstr("user 2, process "));
}

TEST(TheService, ServesNobodyButRootByDefault) {
    SimulatedService service({"--socket-group", "daemon"});
    EXPECT_EQ(EACCES, asUser(kServed, kServed, opened));
    EXPECT_EQ(0, opened());
}

TEST(TheService, MakesItsSocketForOwnerAndGroup) {
    SimulatedService service({"--client-user", "daemon"});
    struct stat found {};
    ASSERT_EQ(0, ::stat(kSocket, &found));
    EXPECT_EQ(0660U, found.st_mode & 07777);
    EXPECT_EQ(0U, found.st_uid);
    EXPECT_EQ(1U, found.st_gid);
}

TEST(TheService, MakesTheDirectoryOfTheDefaultSocketWhateverTheUmask) {
    const Child child({"sh", "-c", "umask 077; exec " + process::built("rlvd") + " --simulate --log-stderr"});
    ASSERT_TRUE(process::waitUntil([&] { return child.errors().find("serving") != std::string::npos; }));
    for (const char *directory : {"/run/vpk", "/run/vpk/rlvd"}) {
        struct stat found {};
        ASSERT_EQ(0, ::stat(directory, &found));
        EXPECT_EQ(0755U, found.st_mode & 07777) << directory;
    }
    struct stat found {};
    ASSERT_EQ(0, ::stat(rlv::kDefaultSocketPath, &found));
    EXPECT_EQ(0660U, found.st_mode & 07777);
}

// ---- start and end ----

TEST(TheService, DoesNotStartTwice) {
    SimulatedService first;
    std::vector<std::string> second = {process::built("rlvd"), "--simulate", "--socket", kSocket};
    const auto result = process::capture(second);
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.errors, HasSubstr(std::string(kSocket) + ": another service is running there"));
    expectOneLine(result.errors);
    EXPECT_EQ(0, opened()) << "the first one goes on";
}

TEST(TheService, DoesNotStartWhereSomethingElseStands) {
    std::ofstream(kSocket) << "precious";
    const auto result = ended({"--simulate"});
    EXPECT_EQ(1, result.status);
    struct stat found {};
    ASSERT_EQ(0, ::stat(kSocket, &found));
    EXPECT_EQ(8, found.st_size);
}

TEST(TheService, DoesNotStartForAnAccountThatDoesNotExist) {
    const auto result = process::capture({process::built("rlvd"), "--simulate", "--client-user", "nosuchuser"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.errors, HasSubstr("--client-user nosuchuser: no such account"));
    expectOneLine(result.errors);
}

// Whoever started it may look at its standard error or not.
TEST(TheService, AlsoLogsWhyItDidNotStart) {
    const std::string log = "/run/rlvd-log";
    const auto result =
        process::capture({process::built("rlvd"), "--simulate", "--client-user", "nosuchuser", "--log-file", log});
    EXPECT_EQ(1, result.status);
    std::ifstream file(log);
    EXPECT_THAT(std::string(std::istreambuf_iterator<char>(file), {}),
                HasSubstr("ended: --client-user nosuchuser: no such account"));
}

TEST(TheService, TakesTheNumberOfAnAccountAndNoneThatIsTooLarge) {
    { const SimulatedService service({"--client-user", "1"}); }
    for (const char *number : {"4294967296", "4294967297", "18446744073709551617", "1x", "+1", "-1", ""})
        EXPECT_THAT(ended({"--simulate", "--client-user", number}).errors, HasSubstr("no such account")) << number;
}

TEST(TheService, DoesNotStartWithAPrefixThatABuiltInChainHas) {
    const std::string longest(20, 'X');
    for (const std::string &prefix : {std::string(), std::string("IN"), std::string("OUTPUT"), std::string("VPK DENY"),
                                      std::string("-N"), std::string("1"), longest + "X"})
        EXPECT_NE(0, ended({"--simulate", "--chain-prefix", prefix}).status) << prefix;
    const SimulatedService service({"--chain-prefix", longest});
}

class TheServiceOnASignal : public testing::TestWithParam<int> {};

TEST_P(TheServiceOnASignal, EndsCleanlyAndRemovesItsSocket) {
    SimulatedService service;
    const Client open;
    service.process().signal(GetParam());
    EXPECT_EQ(0, service.process().wait());
    EXPECT_NE(0, ::access(kSocket, F_OK));
    EXPECT_THAT(service.log(), HasSubstr("ended by signal " + std::to_string(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Each, TheServiceOnASignal, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST(TheService, TakesOverFromOneThatWasKilled) {
    { SimulatedService killed; }
    ASSERT_EQ(0, ::access(kSocket, F_OK));
    SimulatedService next;
    EXPECT_EQ(0, opened());
}

TEST(TheService, HasAnotherIdentityAfterEachStart) {
    std::uint64_t first = 0;
    {
        SimulatedService service;
        first = rlv::query(0).serviceId;
    }
    SimulatedService next;
    EXPECT_NE(first, rlv::query(0).serviceId);
}

TEST(TheService, FailsTheClientsOfOneThatWasKilled) {
    SimulatedService service;
    Client client;
    service.process().kill();
    EXPECT_EQ(ECONNRESET, client.close());
    EXPECT_EQ(ECONNREFUSED, opened());
    EXPECT_EQ(ECONNREFUSED, queryError());
}

TEST(TheService, TellsAServiceManagerThatItIsReady) {
    const UniqueFd manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/notify"); // NOLINT(clang-analyzer-security.insecureAPI.strcpy)
    ASSERT_EQ(0, ::bind(manager.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
    process::Options options;
    options.environment = {"NOTIFY_SOCKET=/run/notify"};
    const Child child(words({"--simulate"}), options);
    char text[64] = {};
    const timeval timeout{20, 0};
    ::setsockopt(manager.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ASSERT_GT(::recv(manager.get(), text, sizeof text - 1, 0), 0);
    EXPECT_STREQ("READY=1", text);
    rlv::setSocketPath(kSocket);
    EXPECT_EQ(0, opened());
}

TEST(TheService, SaysItsVersionAndTeaches) {
    EXPECT_EQ("rlvd 0.1.0\n", ended({"--version"}).output);
    const auto help = ended({"--help"}).output;
    for (const char *word :
         {"--client-user NAME ...", "--chain-prefix TEXT=VPK- ", "--no-resolve", "--simulate", "--remove-tables",
          "--socket TEXT=/run/vpk/rlvd/socket\n", "--max-clients UINT:INT in [1 - 512]=128\n",
          "--max-clients-per-user UINT:INT in [1 - 512]=32\n", "--idle-timeout INT:INT in [1 - 86400]=600\n",
          "--refresh-names INT:INT in [1 - 86400]=300\n"})
        EXPECT_THAT(help, HasSubstr(word));
}

// ---- how connections ended ----

TEST(TheService, RemembersHowAConnectionEndedAndWhatWasRefused) {
    SimulatedService service;
    Client client;
    const auto number = rlv::query(0).connections.at(0).number;
    client.commit("-N VPK-DENY");
    client.commit("-N VPK-DENY");
    EXPECT_EQ(rlv::ConnectionEnd::open, outcomeOf(number).end);
    client.close();
    const auto outcome = outcomeOf(number);
    EXPECT_EQ(rlv::ConnectionEnd::closed, outcome.end);
    ASSERT_EQ(1U, outcome.failed.size());
    EXPECT_EQ("-N VPK-DENY", outcome.failed[0].options);
    EXPECT_EQ(1, outcome.failed[0].code);
    EXPECT_FALSE(outcome.failed[0].message.empty());
    EXPECT_TRUE(outcome.failed[0].wasRefused);
    EXPECT_EQ(0U, outcome.failedBeyondList);
}

TEST(TheService, KnowsAVanishedClientFromAClosedConnection) {
    SimulatedService service;
    std::uint64_t number = 0;
    {
        RawClient client;
        number = client.open();
    }
    EXPECT_TRUE(process::waitUntil([&] { return outcomeOf(number).end == rlv::ConnectionEnd::vanished; }));
}

TEST(TheService, TellsOnlyOfConnectionsAboveTheGivenNumber) {
    SimulatedService service;
    EXPECT_EQ(0, opened());
    EXPECT_EQ(0, opened());
    const auto connections = rlv::query(1).connections;
    ASSERT_EQ(1U, connections.size());
    EXPECT_EQ(2U, connections[0].number);
}

TEST(TheService, TellsAProcessOnlyOfItsOwnConnections) {
    SimulatedService service({"--client-user", "daemon"});
    EXPECT_EQ(0, opened());
    const auto countOfMine = [] { return static_cast<int>(rlv::query(0).connections.size()); };
    EXPECT_EQ(0, asUser(0, 0, countOfMine)) << "same user, another process";
    EXPECT_EQ(1, asUser(kServed, kServed, [&] { return opened() == 0 ? countOfMine() : 9; }));
    EXPECT_EQ(1, countOfMine());
    EXPECT_EQ(0, opened());
    EXPECT_EQ(3U, rlv::query(0).connections.at(1).number) << "theirs are counted";
}

TEST(TheService, LogsRefusedCommandsWithTheirCaller) {
    SimulatedService service;
    const Client client;
    client.commit("-F VPK-DENY");
    client.commit("-N VPK-DENY");
    EXPECT_THAT(service.log(),
                HasSubstr("connection 1 of user 0, process " + std::to_string(::getpid()) + ": refused (1, "));
    EXPECT_THAT(service.log(), HasSubstr(": -F VPK-DENY"));
    EXPECT_THAT(service.log(), testing::Not(HasSubstr("-N VPK-DENY"))) << "accepted commands are too many";
}

TEST(TheService, LogsAcceptedCommandsWhenAsked) {
    SimulatedService service({"--verbose"});
    Client().commit("-N VPK-DENY");
    EXPECT_THAT(service.log(), HasSubstr(": -N VPK-DENY"));
}

// ---- clients that misbehave ----

TEST(TheService, RefusesGarbageAndServesOthers) {
    SimulatedService service;
    const std::string noRequest(30, '?');
    for (const std::string &packet : {std::string("C"), noRequest, std::string(60'000, '\xff'),
                                      rlv::protocol::encode(Request{Request::Kind::commit, 0, "-N VPK-X"}),
                                      rlv::protocol::encode(Request{Request::Kind::close, 0, {}}),
                                      rlv::protocol::encode(Request{Request::Kind::open, 99, {}})}) {
        RawClient client;
        client.send(packet);
        const auto reply = client.receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(Reply::Kind::refused, reply->kind);
        EXPECT_FALSE(client.receive()) << "the socket is closed";
    }
    EXPECT_EQ(0, opened());
    EXPECT_TRUE(rlv::query(0).chains.empty());
}

TEST(TheService, DoesNotWaitForASilentClient) {
    SimulatedService service;
    const RawClient silent;
    EXPECT_EQ(0, opened());
    EXPECT_EQ(0, queryError());
}

TEST(TheService, CutsOffAClientThatIsSilentForTooLong) {
    SimulatedService service({"--idle-timeout", "1"});
    RawClient unspoken;
    RawClient silent;
    const auto number = silent.open();
    EXPECT_FALSE(silent.receive());
    EXPECT_FALSE(unspoken.receive());
    EXPECT_EQ(rlv::ConnectionEnd::vanished, outcomeOf(number).end);
}

TEST(TheService, CutsOffAClientThatDoesNotReadItsReplies) {
    SimulatedService service({"--idle-timeout", "1"});
    RawClient greedy;
    ASSERT_NE(0U, greedy.open());
    bool cutOff = false;
    EXPECT_TRUE(process::waitUntil([&] {
        while (greedy.send(Request::Kind::query, 0, {}, MSG_DONTWAIT)) {
        }
        cutOff = errno == EPIPE || errno == ECONNRESET;
        return cutOff || queryError() != 0;
    }));
    EXPECT_TRUE(cutOff) << "others were held up";
    EXPECT_THAT(service.log(), HasSubstr("it does not read its reply"));
}

TEST(TheService, ServesNoMoreClientsOfOneAccountThanItsLimit) {
    SimulatedService service({"--client-user", "daemon", "--max-clients-per-user", "2"});
    {
        const RawClient first;
        const RawClient second;
        EXPECT_EQ(EBUSY, opened());
        EXPECT_EQ(0, asUser(kServed, kServed, opened)) << "another account has places of its own";
    }
    EXPECT_TRUE(process::waitUntil([] { return opened() == 0; }));
}

TEST(TheService, ServesNoMoreClientsInAllThanItsLimit) {
    SimulatedService service({"--client-user", "daemon", "--max-clients", "2"});
    const RawClient first;
    const RawClient second;
    EXPECT_EQ(EBUSY, asUser(kServed, kServed, opened));
}

TEST(TheService, OutlivesAFloodOfConnections) {
    SimulatedService service;
    const Client early;
    for (int i = 0; i < 500; ++i)
        const RawClient flood;
    EXPECT_EQ("0: ", early.commit("-N VPK-DENY"));
}

} // namespace
