// What the plugin makes of its configuration, and of changes to it.
#include "host/plugin-config.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/firewall-plugin.h"
#include "support/text-file.h"

namespace {

using testing::HasSubstr;

TEST(AVerdict, IsWhatThePluginMakesOfTheText) {
    const auto cut = host::judgeConfig(R"({"enabled":"1","x":[1,)");
    EXPECT_FALSE(cut.whole);
    EXPECT_EQ(cut.problem, "");
    EXPECT_TRUE(host::judgeConfig("{}").whole);
    EXPECT_EQ(host::judgeConfig("").understood, "");
}

// Settings that may not be merged into `current`, and a part of the reason.
struct Change {
    std::string current;
    std::string document;
    std::string reason;
};

TEST(AChangeOfSettings, IsRefusedWithTheReason) {
    const std::vector<Change> changes = {
        {"{}", R"({"enabled":{}})", R"(the value of "enabled" must be a string, "1" or "0", not {})"},
        {"{}", R"({"enabled":[]})", R"(must be a string, "1" or "0", not [])"},
        {"{}", R"({"send_report_interval":{"a":1}})", R"(the value of "send_report_interval" must be a number)"},
        {"{}", R"({"last_send_report_ts":[1]})", R"(the value of "last_send_report_ts" must be a number)"},
        {"{}", R"({"send_report_interval":12345678901234567890})",
         "must be a number of seconds, of 64 bits at most, not 12345678901234567890"},
        {"{}", R"({"last_send_report_ts":"99999999999999999999"})", "not \"99999999999999999999\""},
        {"{}", R"({"other":{"enabled":{}}})", R"(the value of "enabled" must be)"},
        {R"({"x":{"y":{}}})", R"({"x":{"y":{"enabled":[]}}})", R"(the value of "enabled" must be)"},
        {R"({"x":{}})", R"({"x":1})", R"("x" is an object in the configuration and can be changed by an object only)"},
        {"{}", R"({"enabled":)", "is no complete JSON document: "},
        {"{}", R"({"enabled":"1")", "is no complete JSON document: "},
        {"{}", "", "is no complete JSON document: "},
        {"{}", "garbage", "is no complete JSON document: "},
        {"{}", "[]", "must be a JSON object, such as"},
        {"{}", "null", "must be a JSON object, such as"},
        {"{}", "\"1\"", "must be a JSON object, such as"},
        {"{}", R"({"x":")" + std::string(262'144, 'x') + "\"}", "262144 are accepted"},
        {R"({"y":")" + std::string(200'000, 'x') + "\"}", R"({"x":")" + std::string(100'000, 'x') + "\"}",
         "bytes; 262144 are accepted"},
        {"{}",
         R"({"x":[1)" +
             [] {
                 std::string list;
                 for (int i = 0; i < 9000; ++i)
                     list += ",1";
                 return list;
             }() +
             "]}",
         "values; 8192 are accepted"},
    };
    for (const auto &change : changes)
        EXPECT_THAT(host::changeProblem(change.current, change.document), HasSubstr(change.reason))
            << change.document.substr(0, 80);
}

TEST(AChangeOfSettings, IsTakenWhenThePluginCanLiveWithIt) {
    for (const std::string document :
         {"{}", R"({"enabled":"1"})", R"({"enabled":0})", R"({"send_report_interval":"3600s"})",
          R"({"send_report_interval":"abc"})", R"({"send_report_interval":0})", R"({"send_report_interval":null})",
          R"({"other":{"deep":[1,{"er":2}]}})", R"({"enabled":"1", /* a note */ "send_report_interval":"3600"})"}) {
        for (const std::string current : {"", "{}", R"({"other":{"deep":1}})", "[]", R"({"cut":)"})
            EXPECT_EQ(host::changeProblem(current, document), "") << document << " into " << current;
    }
}

TEST(AChangeOfSettings, IsFoundInTheConfigurationAfterwards) {
    EXPECT_TRUE(host::holdsChange(R"({"a":1,"enabled":"1"})", R"({"enabled":"1"})"));
    EXPECT_TRUE(host::holdsChange(R"({"a":1.5,"b":{}})", R"({"a":15e-1,"b":{"c":1}})"));
    EXPECT_FALSE(host::holdsChange(R"({"enabled":"0"})", R"({"enabled":"1"})"));
    EXPECT_FALSE(host::holdsChange("", R"({"enabled":"1"})"));
}

TEST(TheConfiguration, IsReadAsThePluginReadsIt) {
    EXPECT_FALSE(host::collectorWanted());
    textfile::write(host::kConfigFile,
                    R"({"enabled":"1","last_send_report_ts":"17","send_report_interval":86400,"list":[]})");
    EXPECT_TRUE(host::collectorWanted());
    EXPECT_EQ(host::configValue("last_send_report_ts"), "17");
    EXPECT_EQ(host::configValue("send_report_interval"), "86400");
    EXPECT_EQ(host::configValue("list"), "");
    textfile::write(host::kConfigFile, R"({"enabled":"01"})");
    EXPECT_FALSE(host::collectorWanted());
    textfile::write(host::kConfigFile, std::string(100'000, '['));
    EXPECT_EQ(host::configValue("enabled"), "");
}

std::string listOf(std::size_t values) {
    std::string list = "[1";
    for (std::size_t i = 1; i < values; ++i)
        list += ",1";
    return list + "]";
}

TEST(AVerdict, SaysWhatThePluginWouldHold) {
    EXPECT_EQ(host::judgeConfig(R"({"enabled" : "1"})").understood, R"({"enabled":"1"})");
    EXPECT_EQ(host::judgeConfig("null").problem, "");
    EXPECT_FALSE(host::judgeConfig("null").whole);
    EXPECT_EQ(host::judgeConfig("[]").problem, "it must be a JSON object");
    EXPECT_FALSE(host::judgeConfig("[]").whole);
    EXPECT_FALSE(host::judgeConfig("{").whole);
    for (const char *sound :
         {R"({"enabled":true,"send_report_interval":"9223372036854775807"})",
          R"({"send_report_interval":"abc","last_send_report_ts":null})", R"({"enabled":"99999999999999999999"})"})
        EXPECT_EQ(host::judgeConfig(sound).problem, "") << sound;
    EXPECT_THAT(host::judgeConfig(R"({"send_report_interval":"9223372036854775808"})").problem,
                HasSubstr("must be a number of seconds, of 64 bits at most, not \"9223372036854775808\""));
}

TEST(AVerdict, IsBoundedByBytesAndValues) {
    const std::size_t most = host::kConfigLimitBytes;
    EXPECT_EQ(host::judgeConfig("{}" + std::string(most - 2, ' ')).problem, "");
    EXPECT_EQ(host::judgeConfig("{}" + std::string(most - 1, ' ')).problem,
              "it would have 262145 bytes; 262144 are accepted");
    EXPECT_EQ(host::judgeConfig(R"({"x":)" + listOf(host::kConfigLimitValues - 2) + "}").problem, "");
    EXPECT_EQ(host::judgeConfig(R"({"x":)" + listOf(host::kConfigLimitValues - 1) + "}").problem,
              "it would hold 8193 values; 8192 are accepted");
}

TEST(AChangeOfSettings, ShowsSixtyBytesOfWhatIsRefused) {
    const auto refused = [](std::size_t bytes) {
        return host::changeProblem("{}", R"({"enabled":[")" + std::string(bytes - 4, 'x') + R"("]})");
    };
    EXPECT_EQ(refused(60),
              R"(the value of "enabled" must be a string, "1" or "0", not [")" + std::string(56, 'x') + "\"]");
    EXPECT_EQ(refused(61),
              R"(the value of "enabled" must be a string, "1" or "0", not [")" + std::string(57, 'x') + "\" ...");
    EXPECT_EQ(host::changeProblem("{}", "null"),
              R"(must be a JSON object, such as {"send_report_interval":"3600"}, not null)");
}

TEST(AChangeOfSettings, IsMeasuredByWhatComesOfIt) {
    const auto with = [](std::size_t bytes) { // with the line break that the plugin writes
        return host::changeProblem("{}", R"({"x":")" + std::string(bytes - 9, 'x') + "\"}");
    };
    EXPECT_EQ(with(host::kConfigLimitBytes), "");
    EXPECT_EQ(with(host::kConfigLimitBytes + 1),
              "the configuration would be refused: it would have 262145 bytes; 262144 are accepted");
    EXPECT_EQ(host::changeProblem(R"({"enabled":{}})", R"({"other":1})"),
              R"(the configuration would be refused: the value of "enabled" must be a string, "1" or "0", not {})");
}

// Members of members come to the top level where the configuration holds an object of that name.
TEST(AChangeOfSettings, IsMergedAsThePluginMerges) {
    const std::string current = R"({"x":{},"y":{},"a":2})";
    for (const char *document : {R"({"x":{"z":1}})", R"({"x":null})", R"({"x":{"y":null}})", R"({"a":{"y":4}})",
                                 R"({"a":[]})", R"({"x":{"a":{"y":1}}})"})
        EXPECT_EQ(host::changeProblem(current, document), "") << document;
    for (const char *document : {R"({"y":4})", R"({"x":{"y":4}})", R"({"x":{"y":{"x":{"y":4}}}})"})
        EXPECT_EQ(host::changeProblem(current, document),
                  R"("y" is an object in the configuration and can be changed by an object only, not by 4)");
    EXPECT_EQ(host::changeProblem(current, R"({"x":{"y":[5]}})"),
              R"("y" is an object in the configuration and can be changed by an object only, not by [5])");
}

TEST(AChangeOfSettings, IsHeldWhereEachOfItsValuesStands) {
    EXPECT_FALSE(host::holdsChange(R"({"a":1,"b":2})", R"({"a":1,"b":3})"));
    EXPECT_FALSE(host::holdsChange("{}", R"({"a":1})"));
    EXPECT_TRUE(host::holdsChange("{}", R"({"a":null,"b":{"c":1}})"))
        << "what was merged into objects is not told apart";
    EXPECT_TRUE(host::holdsChange("{}", "{}"));
    for (const auto &[text, document] : std::vector<std::pair<std::string, std::string>>{
             {"[]", "{}"}, {"{}", "[]"}, {"null", "{}"}, {"{}", ""}, {"7", "7"}})
        EXPECT_FALSE(host::holdsChange(text, document)) << text << " " << document;
}

} // namespace
