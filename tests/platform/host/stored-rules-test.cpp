#include "host/stored-rules.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "mavo/exception.h"
#include "support/sqlite-file.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char *kTable = "CREATE TABLE firewall_rules (id INTEGER PRIMARY KEY, protocol TEXT, domain TEXT, port "
                               "TEXT, direction INTEGER, is_allowed INTEGER);";

class TheStoredRules : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }

    static std::vector<std::string> read() {
        std::vector<std::string> rules;
        host::forEachStoredRule([&](const host::StoredRule &row) {
            const auto &[protocol, address, port, direction] = row.rule;
            rules.push_back(protocol + "|" + address + "|" + port + "|" + std::to_string(direction) +
                            (row.allowed ? "|allowed" : "|denied"));
        });
        return rules;
    }
    template <typename Exception> static std::string problem() try {
        read();
        return "nothing was thrown";
    } catch (const Exception &error) {
        return error.what();
    }
};

TEST_F(TheStoredRules, AreNoneBeforeTheDatabaseIs) {
    EXPECT_THAT(read(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(host::kRuleDatabase));
}

TEST_F(TheStoredRules, AreGivenInTheirOrderColumnByColumn) {
    sqlitefile::execute(host::kRuleDatabase, std::string(kTable) +
                                                 "INSERT INTO firewall_rules (protocol, domain, port, direction, "
                                                 "is_allowed) VALUES ('tcp', '10.0.0.5', '80:90', 2, 0), "
                                                 "('udp', 'b.example', '', 1, 1), ('', '', '53', 7, 2), "
                                                 "(NULL, NULL, NULL, 0, 0)");
    EXPECT_THAT(read(), ElementsAre("tcp|10.0.0.5|80:90|2|denied", "udp|b.example||1|allowed", "||53|7|allowed",
                                    "|||0|denied"));
}

TEST_F(TheStoredRules, CannotBeReadFromADatabaseOfSomethingElse) {
    sqlitefile::execute(host::kRuleDatabase, "CREATE TABLE other (a)");
    EXPECT_THAT(problem<mavo::Exception>(), StartsWith(std::string(host::kRuleDatabase) + ": no such table"));
}

TEST_F(TheStoredRules, CannotBeReadWhereSomethingElseLies) {
    std::filesystem::create_directory(host::kRuleDatabase);
    EXPECT_THAT(problem<std::runtime_error>(), StartsWith(host::kRuleDatabase));
}

TEST_F(TheStoredRules, AreLeftByWhatTheirReaderThrows) {
    sqlitefile::execute(host::kRuleDatabase, std::string(kTable) + "INSERT INTO firewall_rules (domain) VALUES ('a')");
    EXPECT_THROW(host::forEachStoredRule([](const host::StoredRule &) { throw 7; }), int);
}

} // namespace
