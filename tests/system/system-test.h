// What the tests of the whole system share.
#ifndef TESTS_SYSTEM_SYSTEM_TEST_H
#define TESTS_SYSTEM_SYSTEM_TEST_H

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/firewall-oracle.h"
#include "support/network.h"
#include "support/process.h"
#include "support/whole-system.h"

namespace systemtest {

using Lines = std::vector<std::string>;
using firewall_oracle::Row;
using firewall_oracle::Rows;

// What the log-and-drop chain holds, always.
inline const Lines kLogAndDrop{"-j LOG --log-prefix \"IPTables-Dropped:\"", "-j DROP"};
// What the firewall has in INPUT and in OUTPUT.
inline const Lines kHooks{"-j VPK-ALLOW", "-j VPK-DENY"};

// The rows of the rule table, or of its backup, in natural order.
inline Rows storedRules(const std::string &database = wholesystem::kRuleDatabase) {
    Rows rows;
    for (const auto &record : wholesystem::queryCopy(database, "SELECT * FROM firewall_rules"))
        rows.push_back({record.at(0), record.at(1), record.at(2), std::stoi(record.at(3)), std::stoi(record.at(4))});
    return rows;
}

// A test with the whole system, not yet started.
class SystemTest : public testing::Test {
protected:
    explicit SystemTest(const wholesystem::System::Options &options = {}) : system(options) {}

    void SetUp() override {
        if (const auto listing = process::capture({"iptables", "-w", "-S"}); listing.status != 0)
            GTEST_SKIP() << "no packet filter to be had: " << listing.errors;
    }

    // Commands that must succeed.
    void allow(const std::string &rules) { EXPECT_EQ(system.execute("ApplyAllowRules", rules), 0) << rules; }
    void deny(const std::string &rules) { EXPECT_EQ(system.execute("ApplyDenyRules", rules), 0) << rules; }

    wholesystem::System system;
};

// The same, started.
class RunningSystemTest : public SystemTest {
protected:
    using SystemTest::SystemTest;

    void SetUp() override {
        SystemTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(system.start());
        }
    }
};

} // namespace systemtest

#endif
