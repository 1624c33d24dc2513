// The oracle of the random test, checked against iptables itself and against SQLite.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "support/firewall-oracle.h"
#include "support/network.h"
#include "support/process.h"

namespace {

struct Case {
    firewall_oracle::Row row;
    bool accepted;
};

std::ostream &operator<<(std::ostream &stream, const Case &one) {
    return stream << one.row << (one.accepted ? ", accepted" : ", refused");
}

class OracleOfOneRule : public testing::TestWithParam<Case> {};

// What iptables makes of the same words; nothing when it refuses them.
std::optional<std::string> iptablesShows(const firewall_oracle::Row &row) {
    std::vector<std::string> words{"iptables", "-w", "-A", "MINE"};
    const auto add = [&words](const char *option, const std::string &value) {
        if (!value.empty())
            words.insert(words.end(), {option, value});
    };
    add("-p", row.protocol);
    add("-s", row.domain);
    add("--sport", row.port);
    add("-j", "ACCEPT");
    network::iptables({"-N", "MINE"});
    if (process::capture(words).status != 0)
        return std::nullopt;
    return network::rulesOf("MINE").back();
}

TEST_P(OracleOfOneRule, IsWhatIptablesShows) {
    const auto &[row, accepted] = GetParam();
    const auto expected = firewall_oracle::kernelRule(row, true, "ACCEPT");
    EXPECT_EQ(expected.has_value(), accepted);
    EXPECT_EQ(iptablesShows(row), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, OracleOfOneRule,
    testing::Values(Case{{"", "", "", 1, 0}, true}, Case{{"tcp", "10.0.0.5", "80", 1, 0}, true},
                    Case{{"TCP", "10.1.2.3/8", "80:90", 1, 0}, true}, Case{{"udp", "", ":53", 1, 0}, true},
                    Case{{"17", "", "53:", 1, 0}, true}, Case{{"6", "10.0.0.5/32", "7:7", 1, 0}, true},
                    Case{{"sctp", "10.0.0.5", "0", 1, 0}, true}, Case{{"all", "1.2.3.4/0", "", 1, 0}, true},
                    Case{{"icmp", "192.0.2.255/31", "", 1, 0}, true}, Case{{"tcp", "", "0:65535", 1, 0}, true},
                    Case{{"udp", "", "0:", 1, 0}, true}, Case{{"sctp", "", "0:65535", 1, 0}, true},
                    Case{{"dccp", "", "0:65535", 1, 0}, true}, Case{{"icmp", "", "80", 1, 0}, false},
                    Case{{"", "", "80", 1, 0}, false}, Case{{"tcp", "", "70000", 1, 0}, false},
                    Case{{"tcp", "", "1:2:3", 1, 0}, false}, Case{{"tcp", "", "90:80", 1, 0}, false},
                    Case{{"tcp", "256.0.0.1", "", 1, 0}, false}, Case{{"tcp", "10.0.0.1/33", "", 1, 0}, false},
                    Case{{"nonsense", "", "", 1, 0}, false}));

TEST(OracleOfTheTable, MovesAReplacedRowToTheEndAsSqliteDoes) {
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &database), SQLITE_OK);
    sqlite3_exec(database,
                 "CREATE TABLE r(a TEXT, d INTEGER, PRIMARY KEY(a) ON CONFLICT REPLACE);"
                 "INSERT INTO r VALUES('1',0);INSERT INTO r VALUES('2',0);INSERT INTO r VALUES('3',0);"
                 "INSERT INTO r VALUES('1',1);INSERT INTO r VALUES('1',2);INSERT INTO r VALUES('2',1)",
                 nullptr, nullptr, nullptr);
    std::string order;
    sqlite3_exec(
        database, "SELECT * FROM r LIMIT 10 OFFSET 0",
        [](void *into, int, char **values, char **) {
            *static_cast<std::string *>(into) += std::string(values[0]) + values[1] + " ";
            return 0;
        },
        &order, nullptr);
    sqlite3_close(database);
    EXPECT_EQ(order, "30 12 21 ");

    firewall_oracle::Road road;
    road.start();
    road.applyDeny("tcp:10.0.0.1:1:bid;tcp:10.0.0.2:1:bid;tcp:10.0.0.3:1:bid;tcp:10.0.0.1:1:in;tcp:10.0.0.1:1:out;"
                   "tcp:10.0.0.2:1:in");
    const firewall_oracle::Rows expected{
        {"tcp", "10.0.0.3", "1", 0, 0}, {"tcp", "10.0.0.1", "1", 2, 0}, {"tcp", "10.0.0.2", "1", 1, 0}};
    EXPECT_EQ(road.rows(), expected);
}

TEST(OracleOfTheRoad, LeavesAppliedWhatStoodBeforeTheFirstFailure) {
    firewall_oracle::Road road;
    road.start();
    EXPECT_EQ(road.applyDeny("tcp:10.0.0.1:1:in;tcp:10.0.0.2:70000:in;tcp:10.0.0.3:1:in"), 2);
    EXPECT_EQ(road.deny, firewall_oracle::Chain{"-s 10.0.0.1/32 -p tcp -m tcp --sport 1 -j VPK-LOGANDDROP"});
    EXPECT_EQ(road.applyDeny("tcp:10.0.0.3:1:in;bad"), -1);
    EXPECT_EQ(road.rows().size(), 1U);
}

} // namespace
