// Which words of rules could be host names, and what the service is told and asked of them.
#include "host/names-in-use.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake-service.h"
#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "support/leaping-clock.h"
#include "support/sqlite-file.h"
#include "told-lines.h"

namespace {

using host::namesIn;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(NamesInRules, AreTheAddressesWithLetters) {
    EXPECT_THAT(namesIn("tcp:b.example:80;*:10.0.0.1:*;udp:a-1.Example:53:out;*:*:*;*::*"),
                ElementsAre("a-1.Example", "b.example"));
}

TEST(NamesInRules, AreEachThereOnce) { EXPECT_THAT(namesIn("*:a.b:*;*:a.b:1;tcp:a.b:2"), ElementsAre("a.b")); }

TEST(NamesInRules, StandInDocumentsToo) {
    EXPECT_THAT(namesIn("{\"ALLOW\": [\"*:a.example:*\",\n\"tcp:b.example:80:in\"], \"DENY\":[]}"),
                ElementsAre("a.example", "b.example"));
}

TEST(NamesInRules, AreNothingElse) {
    for (const char *rules :
         {"", ";;;", ":", "::", "a:b", "*:a b:*", "*:a/8:*", "*:\x80xyz:*", "x:1.2.3.4:y", "*:a*:*"})
        EXPECT_THAT(namesIn(rules), IsEmpty()) << rules;
    EXPECT_THAT(namesIn("*:" + std::string(255, 'a') + ":*"), IsEmpty());
}

TEST(NamesInRules, AreLimited) {
    std::string rules;
    for (int i = 0; i < 5000; ++i)
        rules += "*:n" + std::to_string(i) + ".example:*;";
    EXPECT_EQ(rlv::kMaxNamesInUse, namesIn(rules).size());
}

TEST(AName, IsOfLettersDigitsAndThreeMore) {
    for (const std::string name : {"a", "z", "A", "Z", "a0", "9z", "a-b", "a_b", "a.b", "0a9-_."})
        EXPECT_TRUE(host::couldBeName(name)) << name;
    for (const std::string other : {"", "0", "1.2.3.4", "-._", "a`", "a{", "a@", "a[", "a/", "a:", "a,", "a "})
        EXPECT_FALSE(host::couldBeName(other)) << other;
    EXPECT_TRUE(host::couldBeName(std::string(254, 'a')));
    EXPECT_FALSE(host::couldBeName(std::string(255, 'a')));
}

TEST(AName, StandsBetweenTheFirstAndTheSecondColon) {
    EXPECT_THAT(namesIn(":x:"), ElementsAre("x"));
    EXPECT_THAT(namesIn("p:x:y:z"), ElementsAre("x"));
    for (const char separator : {';', ',', '"', '[', ']', '{', '}', ' ', '\n', '\x01'})
        EXPECT_THAT(namesIn(std::string("p:a:1") + separator + "p:b:1"), ElementsAre("a", "b")) << separator;
}

// Its service, its loop and its stored rules.
class NamesInUse : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        service.emplace();
        names.emplace();
    }
    void TearDown() override { names.reset(); }

    static void store(const std::vector<std::string> &domains) {
        sqlitefile::execute(host::kRuleDatabase,
                            "CREATE TABLE IF NOT EXISTS firewall_rules (protocol, domain, port, direction, is_allowed);"
                            "DELETE FROM firewall_rules");
        for (const auto &domain : domains)
            sqlitefile::execute(host::kRuleDatabase,
                                "INSERT INTO firewall_rules VALUES ('', '" + domain + "', '', 0, 0)");
    }
    void answer(std::uint64_t inUse, std::uint64_t generation = 0, std::uint64_t serviceId = 1) {
        service->change([&](hosttest::Answers &answers) {
            answers.names.inUse = inUse;
            answers.names.generation = generation;
            answers.names.serviceId = serviceId;
            answers.names.refreshSeconds = 3'600;
        });
    }
    void follow() {
        names->follow(&loop, [this](const std::string &reason) { changed.push_back(reason); });
    }
    // In use since the tables were built; nothing is asked for the next 30 s.
    void useOne() {
        store({"a.example"});
        answer(1);
        follow();
        names->announceStored();
        service->asked();
    }
    std::vector<std::string> askedWithin(milliseconds duration) {
        leaping::run(loop, duration);
        return service->askedOfNames();
    }

    std::optional<hosttest::FakeService> service;
    support::EventLoop loop;
    std::optional<host::NamesInUse> names;
    std::vector<std::string> changed;
    hosttest::ToldLines told;
};

TEST_F(NamesInUse, CostNothingWhereThereAreNone) {
    follow();
    names->announceStored();
    store({"10.0.0.1", ""});
    names->announceStored();
    names->announceIn("tcp:10.0.0.1:80");
    names->rulesMayBeGone();
    EXPECT_THAT(names->state().list, IsEmpty());
    EXPECT_THAT(askedWithin(seconds(3'600)), IsEmpty());
}

TEST_F(NamesInUse, AreAnnouncedBeforeTheTablesAreBuilt) {
    store({"b.example", "10.0.0.1", "a.example", "b.example"});
    answer(2);
    names->announceStored();
    ASSERT_EQ(service->askedOfNames().size(), 1U);
    names->announceStored();
    EXPECT_THAT(service->askedOfNames(), ElementsAre("announceAll b.example a.example"));
    store({});
    answer(0);
    names->announceStored();
    EXPECT_THAT(service->askedOfNames(), ElementsAre("announceAll")) << "for the last time";
    names->announceStored();
    EXPECT_THAT(service->askedOfNames(), IsEmpty());
}

TEST_F(NamesInUse, AreAskedForNowAndThen) {
    useOne();
    EXPECT_THAT(askedWithin(milliseconds(29'900)), IsEmpty());
    EXPECT_THAT(askedWithin(milliseconds(200)), ElementsAre("look"));
    EXPECT_THAT(askedWithin(milliseconds(29'700)), IsEmpty());
    EXPECT_THAT(askedWithin(milliseconds(30'400)), ElementsAre("look", "look"));
    EXPECT_THAT(changed, IsEmpty());
}

TEST_F(NamesInUse, AreAskedForSoonerWhereOneHasNoAnswerOrAnswersAreShort) {
    useOne();
    service->change([](hosttest::Answers &answers) { answers.names.unanswered = 1; });
    names->announceStored();
    EXPECT_EQ(askedWithin(milliseconds(4'900)).size(), 1U) << "the announcement";
    EXPECT_THAT(askedWithin(milliseconds(200)), ElementsAre("look"));
    for (const auto &[refresh, pause] : {std::pair{3, 3}, {0, 1}, {1, 1}}) {
        service->change([refresh = refresh](hosttest::Answers &answers) {
            answers.names.unanswered = 0;
            answers.names.refreshSeconds = static_cast<std::uint64_t>(refresh);
        });
        names->announceStored();
        EXPECT_EQ(askedWithin(seconds(pause) - milliseconds(100)).size(), 1U) << refresh;
        EXPECT_THAT(askedWithin(milliseconds(200)), ElementsAre("look")) << refresh;
    }
}

TEST_F(NamesInUse, HaveTheTablesBuiltAnewWhenTheyStandForOtherAddresses) {
    useOne();
    answer(1, 5);
    leaping::run(loop, seconds(31));
    EXPECT_THAT(changed, ElementsAre("host names have other addresses"));
    leaping::run(loop, seconds(31));
    EXPECT_EQ(changed.size(), 1U) << "once";
}

TEST_F(NamesInUse, HaveTheTablesBuiltAnewWhenTheServiceHasForgottenThem) {
    for (const auto &[inUse, serviceId] : {std::pair{1, 2}, {0, 2}}) {
        useOne();
        answer(1, 0, 1);
        names->announceStored();
        changed.clear();
        answer(static_cast<std::uint64_t>(inUse), 0, static_cast<std::uint64_t>(serviceId));
        leaping::run(loop, seconds(31));
        EXPECT_THAT(changed, ElementsAre("the traffic-control service has forgotten the host names")) << inUse;
    }
    answer(0, 0, 1);
    names->announceStored();
    store({"a.example"});
    answer(1);
    names->announceStored();
    changed.clear();
    answer(0); // the same service
    leaping::run(loop, seconds(31));
    EXPECT_THAT(changed, ElementsAre("the traffic-control service has forgotten the host names"));
    service->asked();
    EXPECT_THAT(askedWithin(seconds(31)), ElementsAre("look")) << "they are still in use";
}

TEST_F(NamesInUse, AreAnnouncedBeforeRulesAreApplied) {
    follow();
    answer(1, 7);
    names->announceIn("tcp:b.example:80;udp:a.example:53");
    EXPECT_THAT(service->askedOfNames(), ElementsAre("announce a.example b.example"));
    store({"b.example"});
    EXPECT_THAT(askedWithin(milliseconds(900)), IsEmpty());
    EXPECT_THAT(askedWithin(milliseconds(200)), ElementsAre("retain b.example"));
    EXPECT_THAT(askedWithin(milliseconds(29'700)), IsEmpty());
    EXPECT_THAT(askedWithin(milliseconds(500)), ElementsAre("look"));
    EXPECT_THAT(changed, IsEmpty()) << "the generation is what it was at the announcement";
}

TEST_F(NamesInUse, KeepTheGenerationThatWasSeenLastWhenOthersFollow) {
    useOne();
    answer(2, 5); // the first one has other addresses since
    names->announceIn("tcp:b.example:80");
    leaping::run(loop, seconds(2));
    EXPECT_THAT(changed, ElementsAre("host names have other addresses"));
}

TEST_F(NamesInUse, AreLookedUpAnewWhenRulesMayBeGone) {
    useOne();
    store({});
    names->rulesMayBeGone();
    answer(0);
    EXPECT_THAT(askedWithin(milliseconds(1'100)), ElementsAre("retain"));
    EXPECT_THAT(changed, IsEmpty()) << "none are left, and that was expected";
    EXPECT_THAT(askedWithin(seconds(120)), IsEmpty());
}

TEST_F(NamesInUse, AreAskedForAgainWhenTheServiceDidNotAnswerAndThatIsLoggedOnce) {
    useOne();
    service.reset();
    leaping::run(loop, seconds(50));
    EXPECT_THAT(told.take(), ElementsAre(StartsWith("error: host names of the rules: traffic-control service: ")));
    service.emplace();
    answer(1, 0, 2);
    EXPECT_THAT(askedWithin(milliseconds(5'100)), ElementsAre("look"));
    EXPECT_EQ(changed.size(), 1U);
    service.reset();
    leaping::run(loop, seconds(31));
    EXPECT_EQ(told.take().size(), 1U) << "it had succeeded meanwhile";
}

TEST_F(NamesInUse, AreToldAgainWhenTheServiceWasAwayAtTheBuilding) {
    store({"a.example"});
    service.reset();
    follow();
    names->announceStored();
    EXPECT_EQ(told.take().size(), 1U);
    service.emplace();
    answer(1);
    EXPECT_THAT(askedWithin(milliseconds(4'900)), IsEmpty());
    EXPECT_THAT(askedWithin(milliseconds(200)), ElementsAre("retain a.example"));
    EXPECT_THAT(changed, IsEmpty()) << "nobody knows of another service yet";
}

TEST_F(NamesInUse, AreNotReadFromADatabaseOfSomethingElse) {
    sqlitefile::execute(host::kRuleDatabase, "CREATE TABLE other (a)");
    names->announceStored();
    EXPECT_THAT(told.take(),
                ElementsAre(StartsWith("error: host names of the rules: /opt/data/vpk/db/.firewall.db: ")));
    names->announceStored();
    EXPECT_THAT(told.take(), IsEmpty());
}

TEST_F(NamesInUse, AreToldWithTheListWhereTheyAreAskedFor) {
    useOne();
    service->change([](hosttest::Answers &answers) {
        answers.names.list = {{"a.example", rlv::UnansweredName::Problem::absent, 0, -1, false}};
    });
    const auto state = names->state();
    EXPECT_EQ(state.inUse, 1U);
    ASSERT_EQ(state.list.size(), 1U);
    EXPECT_EQ(state.list[0].name, "a.example");
    EXPECT_THAT(service->askedOfNames(), ElementsAre("list"));
    names->rulesMayBeGone();
    names->state();
    EXPECT_THAT(service->askedOfNames(), ElementsAre("retain a.example", "list"));
    names->state();
    EXPECT_THAT(service->askedOfNames(), ElementsAre("list"));
    service.reset();
    EXPECT_EQ(names->state().inUse, 0U);
}

TEST_F(NamesInUse, AreNotAskedForOutsideTheLoop) {
    useOne();
    names->follow(nullptr, {});
    names->rulesMayBeGone();
    EXPECT_THAT(askedWithin(seconds(60)), IsEmpty());
    follow();
    EXPECT_THAT(askedWithin(milliseconds(900)), IsEmpty());
    EXPECT_THAT(askedWithin(milliseconds(200)), ElementsAre("retain a.example"));
}

} // namespace
