// What vpkctl tells about the running system.
#include <algorithm>
#include <json/json.h>
#include <memory>
#include <sstream>

#include "system/system-test.h"

namespace {

using systemtest::Rows;
using systemtest::storedRules;
using testing::HasSubstr;
using testing::Not;

Json::Value parseJson(const std::string &text) {
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    return value;
}

// Nobody puts back what the tests change.
wholesystem::System::Options withoutRepair() {
    wholesystem::System::Options options;
    options.serviceArguments = {"--no-repair"};
    return options;
}

class CommandLine : public systemtest::RunningSystemTest {
protected:
    CommandLine() : RunningSystemTest(withoutRepair()) {}

    // Output of a command that must succeed.
    std::string show(const std::vector<std::string> &words) const {
        const auto result = system.control(words);
        EXPECT_EQ(result.status, 0) << words.front() << ": " << result.errors;
        return result.output;
    }
    // It exits with 1 unless all is in force.
    Json::Value status(int expected = 0) const {
        const auto result = system.control({"status", "--json"});
        EXPECT_EQ(result.status, expected) << result.output << result.errors;
        return parseJson(result.output);
    }
};

TEST_F(CommandLine, StatusCountsRulesStoredAndInForce) {
    allow("tcp:192.0.2.1:80:in");
    deny("tcp:192.0.2.2:80;udp:192.0.2.3:53:out");
    const Json::Value document = status();
    EXPECT_TRUE(document["inForce"].asBool()) << document;
    EXPECT_EQ(document["rules"]["stored"]["allow"], 1);
    EXPECT_EQ(document["rules"]["stored"]["deny"], 2);
    EXPECT_EQ(document["rules"]["inForce"]["allow"], 1);
    EXPECT_EQ(document["rules"]["inForce"]["deny"], 3);
    EXPECT_EQ(document["stored"], 1);
    EXPECT_EQ(document["applied"], 1);
    EXPECT_EQ(document["collector"], "off");
}

TEST_F(CommandLine, StatusTellsThatIpv6PassesUnfiltered) {
    EXPECT_THAT(show({"status"}), HasSubstr("IPv4 only"));
    EXPECT_THAT(show({"status"}), HasSubstr("IPv6 passes unfiltered"));
}

TEST_F(CommandLine, StatusTellsAMissingHook) {
    network::iptables({"-D", "INPUT", "-j", "VPK-DENY"});
    EXPECT_FALSE(status(1)["inForce"].asBool());
    EXPECT_THAT(system.control({"status"}).output, HasSubstr("NOT in force"));
    show({"reload"});
    EXPECT_TRUE(status()["inForce"].asBool());
}

TEST_F(CommandLine, StatusTellsStoredFromAppliedStatus) {
    show({"apply-status", "0"});
    EXPECT_EQ(status()["stored"], 1);
    EXPECT_EQ(status()["applied"], 0);
    show({"set-status", "0"});
    EXPECT_EQ(status()["stored"], 0);
    EXPECT_NE(system.control({"set-status", "2"}).status, 0);
    EXPECT_EQ(status()["stored"], 0);
}

TEST_F(CommandLine, StatusWithoutTheServiceTellsWhatIsNotKnown) {
    system.killService();
    const Json::Value document = status(1);
    EXPECT_FALSE(document["inForce"].asBool());
    EXPECT_FALSE(document["serviceProblem"].asString().empty());
}

TEST_F(CommandLine, RulesCanBeFedBack) {
    allow("tcp:192.0.2.1:8000-8080:in;*:192.0.2.0/24:*");
    deny("udp:*:53:out");
    const Rows before = storedRules();
    const std::string listed = show({"rules"});
    EXPECT_EQ(listed, "ApplyAllowRules tcp:192.0.2.1:8000-8080:in\n"
                      "ApplyAllowRules *:192.0.2.0/24:*:bid\n"
                      "ApplyDenyRules udp:*:53:out\n");
    show({"exec", "FlushAllowRules"});
    show({"exec", "FlushDenyRules"});
    std::istringstream lines(listed);
    for (std::string command, rule; lines >> command >> rule;)
        show({"exec", command, rule});
    EXPECT_EQ(storedRules(), before);
}

TEST_F(CommandLine, RulesAsADocumentHaveTheStoredTexts) {
    deny("tcp:192.0.2.1:8000-8080:in");
    const Json::Value rule = parseJson(show({"rules", "--json"}))["rules"][0];
    EXPECT_EQ(rule["action"], "deny");
    EXPECT_EQ(rule["protocol"], "tcp");
    EXPECT_EQ(rule["domain"], "192.0.2.1");
    EXPECT_EQ(rule["port"], "8000:8080");
    EXPECT_EQ(rule["direction"], 1);
}

TEST_F(CommandLine, ReportsShowsWhatWasSent) {
    EXPECT_EQ(show({"reports"}), "");
    show({"exec", "SendReport"});
    EXPECT_THAT(show({"reports"}), HasSubstr("type 10007/139"));
    const Json::Value report = parseJson(show({"reports", "--json"}))["reports"][0];
    EXPECT_EQ(report["type"], 10007);
    EXPECT_EQ(parseJson(report["body"].asString())["v"], "0.1");
}

TEST_F(CommandLine, ExecTakesItsDataFromStandardInputLessALineBreak) {
    EXPECT_EQ(system.control({"exec", "ApplyDenyRules", "-"}, "tcp:192.0.2.1:80:in\n").status, 0);
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 1, 0}}));
    const auto raw = system.control({"exec", "--raw", "ApplyDenyRules", "-"}, "tcp:192.0.2.2:80:in\n");
    EXPECT_EQ(raw.status, 2) << raw.errors;
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 1, 0}}));
}

TEST_F(CommandLine, FailedExecTellsTheErrorsWithoutColours) {
    const auto malformed = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.1"});
    EXPECT_EQ(malformed.status, 1);
    EXPECT_EQ(malformed.output, "fail\n");
    EXPECT_THAT(malformed.errors, HasSubstr("Invalid format"));
    EXPECT_THAT(malformed.errors, Not(HasSubstr("\x1b")));
    const auto refused = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.1:70000:in"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr("70000"));
}

TEST_F(CommandLine, ApplyPolicyIsPrecededByAWarning) {
    const auto result = system.control({"exec", "ApplyPolicy", R"({"ALLOW":["tcp:192.0.2.1:80:in"]})"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.errors, HasSubstr("end up denied"));
}

TEST_F(CommandLine, PolicyThatIsNoObjectEndsTheCallWithAnException) {
    deny("tcp:192.0.2.1:80:in");
    EXPECT_EQ(system.control({"exec", "ApplyPolicy", "[1]"}).status, 3);
    EXPECT_EQ(storedRules().size(), 1U);
}

TEST_F(CommandLine, EndsWithOneLineWhenNobodyServes) {
    system.killHost();
    const auto result = system.control({"status"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
}

} // namespace
