// How the service keeps the answers of name servers, and what it does with names that clients have announced.
#include "rlvd-process.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/service/names-file.h"
#include "support/name-server.h"
#include "support/text-file.h"

namespace {

using nameserver::NameServer;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace rlvd;
using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;

constexpr const char *kFolder = "/run/names";
constexpr const char *kFile = "/run/names/names";
constexpr std::chrono::milliseconds kTimeout{5'000};
constexpr std::int64_t kDay = std::int64_t{24} * 3600;
constexpr std::uint32_t kOne = 0x0a000001; // 10.0.0.1

std::string hostsWithTooMany() {
    std::string hosts;
    for (std::size_t i = 0; i <= rlv::kMaxAddresses; ++i)
        hosts += "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " many.example\n";
    return hosts;
}

class AnswersOfNameServers : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::remove_all(kFolder);
        std::filesystem::create_directories(kFolder);
        nameserver::useNameServer(hostsWithTooMany());
        server_.set("one.example", nameserver::addresses({"10.0.0.1"}));
    }

    void start(Names more = {}) {
        service_.reset();
        more.insert(more.end(), {"--names-file", kFile});
        service_ = std::make_unique<SimulatedService>(more);
    }
    // A file with an answer for one.example, 10.0.0.1, so many seconds old.
    static void keep(std::int64_t age, const std::string &name = "one.example") {
        rlv::writeNames(kFile, {{name, std::time(nullptr) - age, {kOne}}});
    }
    // The answers to a rule that denies, and to one that allows.
    static Names tryBoth(const std::string &name) {
        const Client client;
        client.commit("-N VPK-DENY");
        client.commit("-N VPK-ALLOW");
        return {client.commit("-A VPK-DENY -s " + name + " -j DROP"),
                client.commit("-A VPK-ALLOW -s " + name + " -j ACCEPT")};
    }
    static Names fileNames() {
        Names names;
        for (const auto &kept : rlv::readNames(kFile))
            names.push_back(kept.name);
        return names;
    }
    static bool waitForState(const std::function<bool(const rlv::NamesState &)> &holds) {
        return process::waitUntil([&] { return holds(rlv::queryNames(true, kTimeout)); });
    }

    NameServer server_;
    std::unique_ptr<SimulatedService> service_;
};

const Names kBothTaken = {"0: ", "0: "};
const Names kDenyTaken = {"0: ", "2: host/network `one.example' not found"};

TEST_F(AnswersOfNameServers, ThatStallHoldUpTheirOwnNamesAlone) {
    start();
    server_.set("stalled.example", nameserver::silence());
    Names names;
    for (int i = 0; i < 100; ++i)
        names.push_back("n" + std::to_string(i) + ".stalled.example");
    names.push_back("one.example");
    const auto begin = Clock::now();
    rlv::announceNames(names, kTimeout);
    Client client;
    client.commit("-N VPK-DENY");
    Names taken;
    for (const auto &name : names) {
        if (client.commit("-A VPK-DENY -s " + name + " -j DROP") == "0: ")
            taken.push_back(name);
    }
    EXPECT_EQ(0, client.close());
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(3'500)) << "2 s, and what a busy machine takes";
    EXPECT_THAT(taken, ElementsAre("one.example"));
}

TEST_F(AnswersOfNameServers, AreWaitedForNoLongerThanTheAnnouncementLasts) {
    start();
    server_.set("stalled.example", nameserver::silence());
    rlv::announceNames({"a.stalled.example", "b.stalled.example"}, kTimeout);
    ASSERT_TRUE(waitForState([](const auto &state) { return state.unanswered == 2; }));
    server_.set("stalled.example", nameserver::failure());
    const Client client;
    client.commit("-N VPK-DENY");
    const auto begin = Clock::now();
    EXPECT_THAT(client.commit("-A VPK-DENY -s a.stalled.example -j DROP"), HasSubstr("not found"));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(AnswersOfNameServers, AreLookedUpOnceForAllCommands) {
    start();
    rlv::announceNames({"one.example"}, kTimeout);
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    EXPECT_EQ(kBothTaken, tryBoth("ONE.example"));
    EXPECT_EQ(1U, server_.questions("one.example"));
}

TEST_F(AnswersOfNameServers, StandInForOneThatFails) {
    start();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    server_.set("one.example", nameserver::failure());
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    const Client client;
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.1 -j DROP"));
}

TEST_F(AnswersOfNameServers, StandInForOneThatDoesNotCome) {
    start();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    server_.set("one.example", nameserver::silence());
    const auto begin = Clock::now();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
}

TEST_F(AnswersOfNameServers, StandInForOneWithTooManyAddresses) {
    keep(0, "many.example");
    start();
    EXPECT_EQ(kBothTaken, tryBoth("many.example"));
    const Client client;
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.1 -j DROP"));
}

TEST_F(AnswersOfNameServers, MayNotBeTooMany) {
    start();
    EXPECT_THAT(tryBoth("many.example").front(), HasSubstr("it has more than 256 addresses"));
}

TEST_F(AnswersOfNameServers, StandInForANameThatIsGoneInRulesThatDenyAlone) {
    start();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    server_.set("one.example", nameserver::absent());
    EXPECT_EQ(kDenyTaken, tryBoth("one.example"));
}

TEST_F(AnswersOfNameServers, CountForRulesThatAllowForSevenDays) {
    server_.set("one.example", nameserver::failure());
    keep(7 * kDay - 60);
    start();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    keep(7 * kDay + 60);
    start();
    EXPECT_EQ(kDenyTaken, tryBoth("one.example"));
}

TEST_F(AnswersOfNameServers, FromTheFutureAreOldAndNotEternal) {
    server_.set("one.example", nameserver::failure());
    keep(-kDay);
    start();
    EXPECT_EQ(kDenyTaken, tryBoth("one.example"));
}

TEST_F(AnswersOfNameServers, AreKeptOverAStart) {
    start();
    tryBoth("one.example");
    EXPECT_EQ(0, service_->process().terminate());
    server_.set("one.example", nameserver::failure());
    start();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
}

TEST_F(AnswersOfNameServers, AreKeptOverAKill) {
    start();
    tryBoth("one.example");
    ASSERT_TRUE(process::waitUntil([] { return fileNames() == Names{"one.example"}; }));
    service_->process().kill();
    struct stat status {};
    ASSERT_EQ(0, ::stat(kFile, &status));
    EXPECT_EQ(0600U, status.st_mode & 0777U);
    server_.set("one.example", nameserver::failure());
    start();
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
}

TEST_F(AnswersOfNameServers, AreNotBelievedFromADamagedFile) {
    keep(0);
    std::string text = textfile::read(kFile);
    text[text.find("10.0.0.1")] = '3';
    textfile::write(kFile, text);
    server_.set("one.example", nameserver::failure());
    start();
    EXPECT_THAT(service_->log(), HasSubstr("kept answers of name servers are not used: /run/names/names: damaged"));
    EXPECT_EQ(text, textfile::read(std::string(kFile) + ".refused"));
    EXPECT_THAT(tryBoth("one.example").front(), HasSubstr("not found"));
}

TEST_F(AnswersOfNameServers, AreNotReadFromWhatOthersHavePlanted) {
    rlv::writeNames("/run/elsewhere", {{"one.example", std::time(nullptr), {kOne}}});
    const std::vector<std::function<void()>> plants = {
        [] { ::mkfifo(kFile, 0666); },
        [] { std::filesystem::create_symlink("/run/elsewhere", kFile); },
        [] { std::filesystem::create_directory(kFile); },
        [] {
            std::filesystem::copy_file("/run/elsewhere", kFile);
            EXPECT_EQ(0, ::chown(kFile, 65534, 65534));
        },
    };
    server_.set("one.example", nameserver::failure());
    for (const auto &plant : plants) {
        std::filesystem::remove_all(kFolder);
        std::filesystem::create_directory(kFolder);
        plant();
        start();
        EXPECT_THAT(service_->log(), HasSubstr("kept answers of name servers are not used"));
        EXPECT_THAT(tryBoth("one.example").front(), HasSubstr("not found"));
        server_.set("two.example", nameserver::addresses({"10.0.0.2"}));
        tryBoth("two.example");
        EXPECT_TRUE(process::waitUntil([] { return fileNames() == Names{"two.example"}; })) << service_->log();
    }
}

TEST_F(AnswersOfNameServers, AreKeptInMemoryWhereThereIsNoRoomForThem) {
    std::filesystem::remove_all(kFolder);
    start();
    tryBoth("one.example");
    ASSERT_TRUE(service_->process().waitReady(
        [this] { return service_->log().find("are kept in memory alone for now") != std::string::npos; }));
    server_.set("one.example", nameserver::failure());
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
}

TEST_F(AnswersOfNameServers, ThatComeLaterAreToldByTheGeneration) {
    start({"--refresh-names", "1"});
    server_.set("late.example", nameserver::failure());
    rlv::announceAllNames({"late.example"}, kTimeout);
    tryBoth("late.example");
    const auto before = rlv::queryNames(true, kTimeout);
    ASSERT_EQ(1U, before.list.size());
    EXPECT_EQ("late.example", before.list[0].name);
    EXPECT_EQ(0U, before.list[0].addresses);
    server_.set("late.example", nameserver::addresses({"10.0.0.3"}));
    EXPECT_TRUE(waitForState([&](const auto &state) { return state.generation > before.generation; }));
    EXPECT_THAT(rlv::queryNames(true, kTimeout).list, IsEmpty());
    EXPECT_EQ(kBothTaken, tryBoth("late.example"));
}

TEST_F(AnswersOfNameServers, ThatChangeAreToldByTheGeneration) {
    start({"--refresh-names", "1"});
    const auto announced = rlv::announceAllNames({"one.example"}, kTimeout);
    tryBoth("one.example");
    server_.set("one.example", nameserver::addresses({"10.0.0.1", "10.0.0.7"}));
    EXPECT_TRUE(waitForState([&](const auto &state) { return state.generation > announced.generation; }));
    EXPECT_EQ(kBothTaken, tryBoth("one.example"));
    const Client client;
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.7 -j DROP"));
}

TEST_F(AnswersOfNameServers, InAnotherOrderAreTheSame) {
    start({"--refresh-names", "1"});
    server_.set("one.example", nameserver::addresses({"10.0.0.1", "10.0.0.7"}));
    const auto announced = rlv::announceAllNames({"one.example"}, kTimeout);
    tryBoth("one.example");
    server_.set("one.example", nameserver::addresses({"10.0.0.7", "10.0.0.1"}));
    const auto asked = server_.questions("one.example");
    ASSERT_TRUE(process::waitUntil([&] { return server_.questions("one.example") >= asked + 2; }));
    EXPECT_EQ(announced.generation, rlv::queryNames(false, kTimeout).generation);
}

TEST_F(AnswersOfNameServers, ThatAreOldAreTold) {
    start({"--refresh-names", "1"});
    rlv::announceAllNames({"one.example", "never.example"}, kTimeout);
    tryBoth("one.example");
    server_.set("one.example", nameserver::absent());
    ASSERT_TRUE(waitForState([](const auto &state) { return state.unanswered == 2; }));
    const auto list = rlv::queryNames(true, kTimeout).list;
    ASSERT_EQ(2U, list.size());
    EXPECT_EQ("never.example", list[0].name);
    EXPECT_EQ(-1, list[0].ageSeconds);
    EXPECT_EQ("one.example", list[1].name);
    EXPECT_EQ(rlv::UnansweredName::Problem::absent, list[1].problem);
    EXPECT_EQ(1U, list[1].addresses);
    EXPECT_GE(list[1].ageSeconds, 0);
    EXPECT_FALSE(list[1].allows);
}

TEST_F(AnswersOfNameServers, AreAskedForNoMoreWhenTheNameIsOutOfUse) {
    start({"--refresh-names", "1"});
    server_.set("two.example", nameserver::addresses({"10.0.0.2"}));
    EXPECT_EQ(2U, rlv::announceAllNames({"one.example", "two.example"}, kTimeout).inUse);
    ASSERT_TRUE(process::waitUntil([&] { return server_.questions("two.example") >= 2; }));
    EXPECT_EQ(1U, rlv::retainNames({"one.example"}, kTimeout).inUse);
    // What was under way may still ask once.
    const auto ones = server_.questions("one.example");
    ASSERT_TRUE(process::waitUntil([&] { return server_.questions("one.example") >= ones + 2; }));
    const auto twos = server_.questions("two.example");
    ASSERT_TRUE(process::waitUntil([&] { return server_.questions("one.example") >= ones + 4; }));
    EXPECT_EQ(twos, server_.questions("two.example"));
}

TEST_F(AnswersOfNameServers, AreWantedForALimitedNumberOfNames) {
    start();
    Names names;
    for (std::size_t i = 0; i < rlv::kMaxNamesInUse + 100; ++i)
        names.push_back("name-of-some-length-" + std::to_string(i) + ".example");
    EXPECT_EQ(rlv::kMaxNamesInUse, rlv::announceNames(names, kTimeout).inUse);
    EXPECT_EQ(rlv::kMaxNamesInUse, rlv::announceNames({"one-more.example"}, kTimeout).inUse);
}

TEST_F(AnswersOfNameServers, AreNotAskedForWhatIsNoHostName) {
    start();
    EXPECT_EQ(
        1U, rlv::announceNames({"", "10.0.0.1", "a b", "0x7f.1", std::string(300, 'a'), "x.example"}, kTimeout).inUse);
}

TEST_F(AnswersOfNameServers, AreNotAnnouncedByNonsense) {
    start();
    const std::vector<std::pair<std::uint64_t, std::string>> nonsense = {
        {5, ""}, {2, "no end of line"}, {1U << 9, ""}, {~std::uint64_t{0}, "a\n"}, {2, std::string(20'000, '\n')}};
    for (const auto &[number, text] : nonsense) {
        RawClient client;
        client.send(Request::Kind::names, number, text);
        const auto reply = client.receive();
        ASSERT_TRUE(reply) << number;
        EXPECT_EQ(Reply::Kind::refused, reply->kind) << number;
    }
    EXPECT_EQ(0U, rlv::queryNames(false, kTimeout).inUse);
}

TEST_F(AnswersOfNameServers, AreNotAskedForWithoutResolving) {
    start({"--no-resolve"});
    EXPECT_EQ(0U, rlv::announceNames({"one.example"}, kTimeout).inUse);
    EXPECT_EQ(0U, server_.questions("one.example"));
}

} // namespace
