#include "host/known-rules.h"

#include <random>
#include <set>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "host/rule-difference.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "support/random-seed.h"
#include "support/sqlite-file.h"

namespace {

using host::KnownRules;
using mavo::database::Connection;
using mavo::database::Statement;

// As the plugin makes it.
constexpr const char *kTable =
    "CREATE TABLE IF NOT EXISTS firewall_rules (protocol TEXT, domain TEXT, port TEXT, direction INTEGER "
    "NOT NULL, is_allowed INTEGER NOT NULL, PRIMARY KEY (protocol, domain, port) ON "
    "CONFLICT REPLACE)";

class TheKnownRules : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }

    // As the plugin does: through the platform's library.
    static void store(const std::string &sql) {
        Connection connection(host::kRuleDatabase, 6, false);
        Statement(connection, kTable).exec();
        EXPECT_TRUE(Statement(connection, sql).exec()) << sql;
    }
    static void deny(const std::string &port, int direction = 2) {
        store("INSERT INTO firewall_rules VALUES ('tcp', '10.0.0.5', '" + port + "', " + std::to_string(direction) +
              ", 0)");
    }

    KnownRules known;
};

TEST_F(TheKnownRules, AreNoneWhereThereIsNoDatabase) {
    EXPECT_TRUE(known.mayHaveChanged());
    EXPECT_EQ(known.look(true), "");
    EXPECT_FALSE(known.mayHaveChanged());
}

TEST_F(TheKnownRules, TellWhatCame) {
    for (const bool all : {true, false}) {
        KnownRules these;
        these.look(true);
        deny(all ? "80" : "81");
        EXPECT_TRUE(these.mayHaveChanged());
        EXPECT_EQ(these.look(all), all ? "+deny tcp:10.0.0.5:80:out\n" : "+deny tcp:10.0.0.5:81:out\n");
        EXPECT_FALSE(these.mayHaveChanged());
        EXPECT_EQ(these.look(all), "");
    }
}

TEST_F(TheKnownRules, TellOfARuleInAnothersPlace) {
    for (const char *port : {"80", "81", "82"})
        deny(port);
    known.look(true);
    deny("81", 1);
    EXPECT_EQ(known.look(false), "+deny tcp:10.0.0.5:81:in\n-deny tcp:10.0.0.5:81:out\n");
    deny("81", 2);
    EXPECT_EQ(known.look(false), "-deny tcp:10.0.0.5:81:in\n+deny tcp:10.0.0.5:81:out\n") << "the newest";
    deny("81", 2);
    EXPECT_EQ(known.look(false), "") << "the same rule again";
}

TEST_F(TheKnownRules, TellWhatWent) {
    for (const char *port : {"80", "81", "82"})
        deny(port);
    known.look(true);
    store("DELETE FROM firewall_rules WHERE port = '80'");
    EXPECT_EQ(known.look(true), "-deny tcp:10.0.0.5:80:out\n");
    store("DELETE FROM firewall_rules");
    EXPECT_EQ(known.look(true), "-deny tcp:10.0.0.5:81:out\n-deny tcp:10.0.0.5:82:out\n");
    deny("80");
    EXPECT_EQ(known.look(false), "+deny tcp:10.0.0.5:80:out\n");
}

TEST_F(TheKnownRules, SeeWhatAnotherProgramHasDone) {
    deny("80");
    known.look(true);
    sqlitefile::execute(host::kRuleDatabase, "UPDATE firewall_rules SET port = '443'");
    EXPECT_TRUE(known.mayHaveChanged());
    EXPECT_EQ(known.look(true), "+deny tcp:10.0.0.5:443:out\n-deny tcp:10.0.0.5:80:out\n");
}

TEST_F(TheKnownRules, StayWhatTheyWereWhenTheDatabaseCannotBeRead) {
    deny("80");
    known.look(true);
    sqlitefile::writeFile(host::kRuleDatabase, std::string(4096, 'x'));
    EXPECT_THROW(known.look(true), mavo::Exception);
    EXPECT_TRUE(known.mayHaveChanged());
    EXPECT_EQ(known.rules(), "deny tcp:10.0.0.5:80:out\n");
    ::unlink(host::kRuleDatabase);
    EXPECT_EQ(known.look(true), "-deny tcp:10.0.0.5:80:out\n");
}

// What the plugin does, at random: rules that are new, that replace others or stand there already, and removals.
TEST_F(TheKnownRules, AreTheStoredOnesHoweverTheyCameThere) {
    std::mt19937 random(seeds::seedOfThisRun());
    deny("1");
    known.look(true);
    for (int i = 0; i < 300; ++i) {
        const std::string before = known.rules();
        bool removes = false;
        for (auto statements = 1 + random() % 3; statements > 0; --statements) {
            removes = removes || random() % 8 == 0;
            if (removes)
                store("DELETE FROM firewall_rules WHERE direction = " + std::to_string(random() % 3));
            else
                deny(std::to_string(random() % 30), static_cast<int>(random() % 3));
        }
        const std::string difference = known.look(removes);
        KnownRules all;
        all.look(true);
        ASSERT_EQ(host::differenceBetween(known.rules(), all.rules()), "") << i;
        ASSERT_EQ(difference, host::differenceBetween(before, all.rules())) << i;
    }
}

} // namespace
