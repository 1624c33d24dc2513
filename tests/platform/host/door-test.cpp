// What the host lets through to the plugin.
#include "host/door.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/rmi.h"

namespace {

using testing::HasSubstr;

std::string rules(std::size_t count) {
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += (i == 0 ? "" : ";") + std::string("::");
    return list;
}

std::string bodyOf(const std::string &text) {
    mavo::rmi::Message message;
    message.write(text);
    return message.body();
}

TEST(ARuleList, PassesUpToItsBounds) {
    for (const char *command : {"ApplyAllowRules", "ApplyDenyRules"}) {
        EXPECT_EQ(host::commandProblem(command, ""), "");
        EXPECT_EQ(host::commandProblem(command, "tcp:10.0.0.5:80:out;udp:\xc3\xa4.example:53"), "");
        EXPECT_EQ(host::commandProblem(command, rules(host::kRuleListLimitRules)), "");
        EXPECT_EQ(host::commandProblem(command, rules(host::kRuleListLimitRules) + ";"), "");
        EXPECT_EQ(host::commandProblem(command, std::string(host::kRuleListLimitBytes, 'x')), "");
    }
}

TEST(ARuleList, IsRefusedBeyondThem) {
    EXPECT_EQ(host::commandProblem("ApplyDenyRules", rules(host::kRuleListLimitRules + 1)),
              "a list of 65537 rules is refused: 65536 rules are accepted");
    EXPECT_EQ(host::commandProblem("ApplyDenyRules", std::string(host::kRuleListLimitBytes + 1, 'x')),
              "a rule list of 4194305 bytes is refused: 4194304 bytes are accepted");
}

TEST(ARuleList, IsRefusedWithControlCharacters) {
    for (const char byte : {'\0', '\n', '\t', '\r', '\x1b', '\x7f'}) {
        const std::string list = std::string("*:10.0.0.1:80;*:10.0.0.2") + byte + ":80";
        EXPECT_THAT(host::commandProblem("ApplyDenyRules", list),
                    HasSubstr("rule 2 is refused, and the list with it: byte 25 of the list is the control character " +
                              std::to_string(static_cast<int>(byte))));
    }
}

TEST(ARuleList, IsRefusedAsTheArgumentOfAMethodToo) {
    for (const char *method : {"Firewall::ApplyAllowRules", "Firewall::ApplyDenyRules"}) {
        EXPECT_EQ(host::methodProblem(method, bodyOf("tcp:10.0.0.5:80")), "");
        EXPECT_THAT(host::methodProblem(method, bodyOf(std::string("tcp:\0:80", 8))), HasSubstr("control character 0"));
        EXPECT_THAT(host::methodProblem(method, bodyOf(rules(host::kRuleListLimitRules + 1))),
                    HasSubstr("65537 rules"));
        EXPECT_EQ(host::methodProblem(method, "abc"), "") << "no argument: the method says so";
    }
    EXPECT_EQ(host::methodProblem("Firewall::FlushDenyRules", ""), "");
}

// A method, a request that is just right for it, and what it takes.
struct Request {
    const char *method;
    std::string body;
    const char *takes;
};

TEST(ARequest, IsRefusedWithMoreThanTheArgumentsOfItsMethod) {
    const std::string number(4, '\1');
    for (const Request &request :
         {Request{"Firewall::ApplyAllowRules", bodyOf("tcp:10.0.0.5:80"), "one text"},
          Request{"Firewall::ApplyDenyRules", bodyOf(""), "one text"},
          Request{"Firewall::FlushAllowRules", "", "no argument"},
          Request{"Firewall::FlushDenyRules", "", "no argument"},
          Request{"Host::executeCommand", bodyOf("a") + bodyOf("b"), "two texts"},
          Request{"Host::setStatus", number, "one number"}, Request{"Host::applyStatus", number, "one number"},
          Request{"Host::getStatus", "", "no argument"}, Request{"Host::reload", "", "no argument"},
          Request{"Host::status", "", "no argument"}, Request{"Host::verify", "", "no argument"},
          Request{"Host::rules", "", "no argument"}, Request{"Host::reports", "", "no argument"},
          Request{"Host::history", number, "one number"}, Request{"Host::diff", bodyOf("2"), "one text"}}) {
        EXPECT_EQ(host::methodProblem(request.method, request.body), "");
        EXPECT_EQ(host::methodProblem(request.method, request.body + "x"),
                  std::string(request.method) + " is refused with more than its arguments: it takes " + request.takes);
    }
}

TEST(ARequest, ThatEndsBeforeTheArgumentsIsLeftToItsMethod) {
    EXPECT_EQ(host::methodProblem("Firewall::ApplyDenyRules", "\x09"), "");
    EXPECT_EQ(host::methodProblem("Host::setStatus", "\x09"), "");
    EXPECT_EQ(host::methodProblem("Host::executeCommand", bodyOf("a") + "\x09"), "");
    const std::string endless = "\xff\xff\xff\xff"; // as the length of a text
    EXPECT_EQ(host::methodProblem("Firewall::ApplyDenyRules", endless + "x"), "");
    EXPECT_EQ(host::methodProblem("Host::executeCommand", endless + bodyOf("b") + "x"), "");
    EXPECT_EQ(host::methodProblem("Host::executeCommand", bodyOf("a") + endless + "x"), "");
}

TEST(ARequest, ForAMethodOfAnotherPluginIsNotJudged) {
    for (const char *method : {"Test::number", "", "Host::", "Firewall::"})
        EXPECT_EQ(host::methodProblem(method, "x"), "") << method;
}

TEST(ADocument, IsBoundedInSizeAndNesting) {
    for (const char *command : {"ApplyPolicy", "StatCollectorPolicy"}) {
        const std::string deepest = R"({"x":)" + std::string(7, '[') + "1" + std::string(7, ']') + "}";
        const std::string tooDeep = R"({"x":)" + std::string(8, '[') + std::string(8, ']') + "}";
        EXPECT_EQ(host::commandProblem(command, deepest), "");
        EXPECT_THAT(host::commandProblem(command, tooDeep), HasSubstr("nested more deeply than 8")) << command;
        EXPECT_THAT(host::commandProblem(command, std::string(90'000, '[')), HasSubstr("nested more deeply than 8"));
        EXPECT_THAT(host::commandProblem(command, std::string(host::kDocumentLimitBytes + 1, ' ')),
                    HasSubstr("of 262145 bytes is refused: 262144 bytes are accepted"));
    }
}

TEST(ADocument, IsRefusedWithANul) {
    for (const char *command : {"ApplyPolicy", "StatCollectorPolicy"}) {
        for (const std::string &document :
             {std::string("{\"ALLOW\":[\"tcp:\0:80\"]}", 22), std::string("{/*\0*/}", 7), std::string("{}\0", 3),
              std::string(R"({"ALLOW":["tcp:\u0000:80"]})"), std::string(R"({"a\u0000":1})")})
            EXPECT_THAT(host::commandProblem(command, document), HasSubstr("with a NUL character is refused"))
                << command << " " << document;
    }
}

TEST(APolicy, IsBoundedByItsRules) {
    std::string entry;
    for (int i = 0; i < 70'000; ++i)
        entry += "::;";
    EXPECT_THAT(host::commandProblem("ApplyPolicy", R"({"ALLOW":[")" + entry + "\"]}"), HasSubstr("70001 rules"));
}

TEST(APolicy, PassesWhenItIsNoneAtAll) {
    // The plugin is laid down to take such a text for an empty policy, or to throw.
    for (const char *document : {"garbage", "", "[1]", R"({"ALLOW":["tcp:10.0.0.5:80")"})
        EXPECT_EQ(host::commandProblem("ApplyPolicy", document), "") << document;
}

TEST(Settings, AreRefusedWhenThePluginCouldNotLiveWithThem) {
    EXPECT_EQ(
        host::commandProblem("StatCollectorPolicy", R"({"enabled":{}})"),
        R"(the settings are refused, and nothing is changed: the value of "enabled" must be a string, "1" or "0", )"
        "not {}");
    EXPECT_EQ(host::commandProblem("StatCollectorPolicy", ""), "") << "does nothing";
}

TEST(OtherCommands, AreBoundedInSizeAlone) {
    EXPECT_EQ(host::commandProblem("FlushDenyRules", "\n"), "");
    EXPECT_THAT(host::commandProblem("Anything", std::string(host::kRuleListLimitBytes + 1, 'x')),
                HasSubstr("refused"));
}

TEST(OtherCommands, AreTheOnesThatChangeNoSettings) {
    for (const char *command : {"EnableStatCollector", "DisableStatCollector", "StatCollectorPolicy"})
        EXPECT_TRUE(host::changesSettings(command)) << command;
    for (const char *command : {"ApplyAllowRules", "ApplyDenyRules", "FlushAllowRules", "FlushDenyRules", "ApplyPolicy",
                                "SendReport", "Anything", ""})
        EXPECT_FALSE(host::changesSettings(command)) << command;
}

} // namespace
