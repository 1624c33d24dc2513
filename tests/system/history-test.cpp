// Who changed what, as a person asks for it.
#include <chrono>
#include <json/json.h>
#include <memory>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

#include "system/system-test.h"

namespace {

using systemtest::storedRules;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

constexpr const char *kHistory = "/opt/data/vpk/db/.history.db";

class TheHistory : public systemtest::RunningSystemTest {
protected:
    Json::Value json(const std::vector<std::string> &words, int expected = 0) const {
        std::vector<std::string> all = words;
        all.emplace_back("--json");
        const auto result = system.control(all);
        EXPECT_EQ(result.status, expected) << result.output << result.errors;
        Json::Value value;
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        EXPECT_TRUE(reader->parse(result.output.data(), result.output.data() + result.output.size(), &value, nullptr))
            << result.output;
        return value;
    }
    Json::Value entries() const { return json({"history", "1000"})["entries"]; }
    Json::Value newest() const {
        const Json::Value all = json({"history", "1"})["entries"];
        return all.empty() ? Json::Value() : all[0];
    }
    static Lines listOf(const Json::Value &array) {
        Lines lines;
        for (const auto &one : array)
            lines.push_back(one.asString());
        return lines;
    }
    static std::string written() {
        std::string differences;
        for (const auto &row : wholesystem::queryCopy(kHistory, "SELECT difference FROM changes ORDER BY number"))
            differences += row.at(0);
        return differences;
    }
    static void waitForEntries(std::size_t count) {
        EXPECT_TRUE(process::waitUntil([count] {
            try {
                return wholesystem::queryCopy(kHistory, "SELECT number FROM changes").size() == count;
            } catch (const std::runtime_error &) {
                return false; // being written
            }
        }));
    }
};

TEST_F(TheHistory, TellsWhoChangedWhat) {
    deny("tcp:192.0.2.1:80:in");
    const auto shown = system.control({"history"});
    EXPECT_EQ(shown.status, 0) << shown.errors;
    EXPECT_THAT(shown.output, HasSubstr("    the history begins with the rules that were stored\n2  "));
    EXPECT_THAT(shown.output, AllOf(HasSubstr("  root, process "), HasSubstr(", calls itself vpkctl\n")));
    EXPECT_THAT(shown.output, HasSubstr("    exec ApplyDenyRules tcp:192.0.2.1:80:in (done)\n"
                                        "    + deny tcp:192.0.2.1:80:in\n"));
}

TEST_F(TheHistory, HasEachChangingCallAndNoOther) {
    system.control({"status"});
    system.control({"rules"});
    allow("tcp:192.0.2.1:80:in");
    system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.2:nonsense", "--as-is"});
    EXPECT_EQ(newest()["result"], "failed");
    system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.2:80\t", "--as-is"});
    EXPECT_EQ(newest()["result"], "refused");
    EXPECT_THAT(newest()["error"].asString(), HasSubstr("control character"));
    system.control({"call", "Firewall::FlushAllowRules"});
    EXPECT_EQ(newest()["method"], "Firewall::FlushAllowRules");
    EXPECT_THAT(listOf(newest()["removed"]), ElementsAre("allow tcp:192.0.2.1:80:in"));
    system.control({"set-status", "1"});
    EXPECT_THAT(listOf(newest()["arguments"]), ElementsAre("1"));
    system.control({"reload"});
    EXPECT_EQ(newest()["method"], "Host::reload");
    EXPECT_EQ(newest()["result"], "done");
    EXPECT_EQ(entries().size(), 7U);
}

TEST_F(TheHistory, TellsARuleInAnothersPlaceAndAListThatEndedInItsMiddle) {
    deny("tcp:192.0.2.1:80:in");
    allow("tcp:192.0.2.1:80:in");
    EXPECT_THAT(listOf(newest()["added"]), ElementsAre("allow tcp:192.0.2.1:80:in"));
    EXPECT_THAT(listOf(newest()["removed"]), ElementsAre("deny tcp:192.0.2.1:80:in"));
    deny("tcp:192.0.2.2:80;tcp:192.0.2.3:80");
    deny("tcp:192.0.2.2:80");
    EXPECT_EQ(newest()["addedCount"], 0) << "it was stored already";
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
    EXPECT_THAT(listOf(newest()["removed"]), ElementsAre("deny tcp:192.0.2.2:80:bid", "deny tcp:192.0.2.3:80:bid"));
}

TEST_F(TheHistory, TellsTheRulesThenFromTheRulesNow) {
    deny("tcp:192.0.2.1:80:in");
    deny("tcp:192.0.2.2:80:in");
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
    allow("udp:192.0.2.3:53");
    EXPECT_EQ(system.control({"diff", "2"}).output, "- deny tcp:192.0.2.1:80:in\n+ allow udp:192.0.2.3:53:bid\n");
    EXPECT_EQ(system.control({"diff", "5"}).output, "no difference\n");
    EXPECT_THAT(listOf(json({"diff", "1"})["added"]), ElementsAre("allow udp:192.0.2.3:53:bid"));
    const auto refused = system.control({"diff", "99"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.output, "");
    EXPECT_THAT(refused.errors, HasSubstr("there is no entry 99: the history has the entries 1 to 5"));
    EXPECT_THAT(json({"diff", "2h"}, 2)["error"].asString(), HasSubstr("that is before the history"));
    EXPECT_THAT(json({"diff", "nonsense"}, 2)["error"].asString(), HasSubstr("\"nonsense\" is no moment"));
    EXPECT_EQ(system.control({"diff"}).status, 2);
    EXPECT_THAT(json({"history", "-1"}, 2)["error"].asString(), HasSubstr("is no number of entries"));
}

TEST_F(TheHistory, GivesJsonAlsoWhereNobodyAnswers) {
    system.stopHost();
    for (const auto &words : {Lines{"history"}, {"diff", "1"}}) {
        EXPECT_THAT(json(words, 2)["error"].asString(), HasSubstr("cannot be reached"));
        EXPECT_THAT(system.control(words).output, IsEmpty());
    }
}

TEST_F(TheHistory, TellsTwoAdministratorsApart) {
    constexpr int kEach = 10;
    const auto administrator = [this](const std::string &net) {
        std::vector<std::string> command{"/bin/sh", "-c",
                                         "for i in $(seq " + std::to_string(kEach) + "); do " +
                                             process::built("vpkctl") + " exec ApplyDenyRules tcp:" + net +
                                             ".$i:80:in || exit 1; done"};
        return command;
    };
    process::Child one(administrator("192.0.2"), {});
    process::Child other(administrator("198.51.100"), {});
    EXPECT_EQ(one.wait(std::chrono::seconds(50)).value_or(-1), 0);
    EXPECT_EQ(other.wait(std::chrono::seconds(50)).value_or(-1), 0);
    const Json::Value all = entries();
    ASSERT_EQ(all.size(), 1U + 2 * kEach);
    for (Json::ArrayIndex i = 1; i < all.size(); ++i) {
        EXPECT_EQ(all[i]["number"].asUInt(), i + 1);
        EXPECT_THAT(listOf(all[i]["added"]), ElementsAre("deny " + all[i]["arguments"][1].asString()));
        EXPECT_EQ(all[i]["removedCount"], 0);
    }
    EXPECT_EQ(storedRules().size(), 2U * kEach);
}

TEST_F(TheHistory, IsReadByObserversAndByNobodyWithoutAPrivilege) {
    std::vector<std::string> command{"setpriv",        "--reuid=65534",          "--regid=65534",
                                     "--clear-groups", process::built("vpkctl"), "history"};
    EXPECT_THAT(process::capture(command).errors, HasSubstr("needs the privilege /privilege/vpk.observer"));
}

TEST_F(TheHistory, LosesASecondAtMostToAKillAndNoDifference) {
    deny("tcp:192.0.2.1:80:in");
    waitForEntries(2);
    deny("tcp:192.0.2.2:80:in");
    system.killHost();
    ASSERT_TRUE(system.startHost());
    const Json::Value entry = newest();
    EXPECT_THAT(listOf(entry["added"]), ElementsAre("deny tcp:192.0.2.2:80:in"));
    EXPECT_EQ(entry["number"], 3);
    EXPECT_EQ(listOf(json({"diff", "1"})["added"]).size(), 2U);
}

TEST_F(TheHistory, HasWhatThePluginDidByItselfAtItsStart) {
    deny("tcp:192.0.2.1:80:in");
    ASSERT_EQ(system.stopHost(), 0);
    for (const char *file : {wholesystem::kRuleDatabase, wholesystem::kRuleBackup})
        ASSERT_EQ(::truncate(file, 100), 0);
    ASSERT_TRUE(system.startHost());
    const Json::Value emptied = newest();
    EXPECT_EQ(emptied["kind"], "found");
    EXPECT_THAT(listOf(emptied["removed"]), ElementsAre("deny tcp:192.0.2.1:80:in"));
    EXPECT_THAT(emptied["notes"].toStyledString(), HasSubstr(".firewall.db"));
}

TEST_F(TheHistory, KeepsTheFirewallFromNothingWhateverBecomesOfItsFile) {
    const std::string garbage = std::string("printf garbage > ") + kHistory;
    for (const std::string &damage :
         {garbage, std::string("truncate -s 5000 ") + kHistory, std::string("rm -f ") + kHistory,
          std::string("rm -rf ") + kHistory + "* && mkdir " + kHistory}) {
        for (const bool isRunning : {true, false}) {
            if (!isRunning) {
                ASSERT_EQ(system.stopHost(), 0);
            }
            ASSERT_EQ(process::capture({"/bin/sh", "-c", damage}).status, 0) << damage;
            if (!isRunning) {
                ASSERT_TRUE(system.startHost()) << damage;
            }
            deny("tcp:192.0.2.1:80:in");
            EXPECT_EQ(system.execute("FlushDenyRules"), 0) << damage;
            EXPECT_EQ(system.control({"status"}).status, 0) << damage;
            EXPECT_EQ(system.control({"history"}).status, 0) << damage;
            if (damage.find("mkdir") != std::string::npos) {
                EXPECT_THAT(system.control({"status"}).output, HasSubstr("the history cannot be written"));
                ASSERT_EQ(::rmdir(kHistory), 0);
            }
        }
    }
    EXPECT_TRUE(process::waitUntil([this] { return entries().size() > 2; }));
    EXPECT_EQ(json({"history"})["problem"], "");
}

} // namespace
