#include "mavo/privileges.h"

#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <utility>

#include <gtest/gtest.h>

#include "mavo/exception.h"

namespace {

using mavo::rmi::Privileges;

const std::string kFile = "/run/privileges";
constexpr gid_t kNoGroup = 65534;

void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

Privileges load(const std::string &text) {
    write(kFile, text);
    return Privileges::load(kFile);
}

// The account database of the tests: "operator" 500, "monitor" 501, and "netdev" 600, to which "monitor" belongs.
class APrivilegesFile : public testing::Test {
protected:
    void SetUp() override {
        write("/run/passwd", "root:x:0:0::/:/bin/sh\noperator:x:500:500::/:/bin/sh\nmonitor:x:501:501::/:/bin/sh\n");
        write("/run/group", "root:x:0:\noperator:x:500:\nmonitor:x:501:\nnetdev:x:600:root,monitor\n");
        for (const std::string name : {"passwd", "group"})
            ASSERT_EQ(0, ::mount(("/run/" + name).c_str(), ("/etc/" + name).c_str(), nullptr, MS_BIND, nullptr));
    }
};

TEST_F(APrivilegesFile, GivesRootEverythingAndOthersNothingWhenItDoesNotExist) {
    const Privileges privileges = Privileges::load("/run/missing");
    EXPECT_TRUE(privileges.holds(0, 0, "http://vpk/privilege/vpk.firewall"));
    EXPECT_FALSE(privileges.holds(500, 500, "http://vpk/privilege/vpk.firewall"));
    EXPECT_FALSE(privileges.holds(500, 0, "http://vpk/privilege/vpk.firewall"));
}

TEST_F(APrivilegesFile, NamesUsersByNameAndByNumber) {
    const Privileges privileges = load("# who may what\n\n/privilege/vpk.firewall operator 777 # two\n");
    EXPECT_TRUE(privileges.holds(500, kNoGroup, "/privilege/vpk.firewall"));
    EXPECT_TRUE(privileges.holds(777, kNoGroup, "/privilege/vpk.firewall"));
    EXPECT_FALSE(privileges.holds(501, kNoGroup, "/privilege/vpk.firewall"));
    EXPECT_FALSE(privileges.holds(500, kNoGroup, "/privilege/vpk.admin"));
}

TEST_F(APrivilegesFile, GivesWhoeverHoldsAPrivilegeWhatThatIncludes) {
    Privileges privileges = load("/privilege/large operator\n/privilege/small monitor\n");
    privileges.include("/privilege/large", "http://vpk/privilege/small");
    EXPECT_TRUE(privileges.holds(500, kNoGroup, "/privilege/small"));
    EXPECT_TRUE(privileges.holds(501, kNoGroup, "/privilege/small"));
    EXPECT_FALSE(privileges.holds(501, kNoGroup, "/privilege/large"));
    EXPECT_FALSE(privileges.holds(777, kNoGroup, "/privilege/small"));
}

TEST_F(APrivilegesFile, NamesGroupsWhoseMembersHoldThePrivilege) {
    const Privileges privileges = load("/privilege/x @netdev @700");
    EXPECT_TRUE(privileges.holds(501, 501, "/privilege/x")) << "a member by the account database";
    EXPECT_TRUE(privileges.holds(500, 600, "/privilege/x")) << "the group of the caller himself";
    EXPECT_TRUE(privileges.holds(12345, 700, "/privilege/x")) << "a caller without an account";
    EXPECT_FALSE(privileges.holds(500, 500, "/privilege/x"));
    EXPECT_FALSE(privileges.holds(600, 500, "/privilege/x")) << "a user with the group's number";
}

TEST_F(APrivilegesFile, NamesTheLargestNumberThatIsAnAccount) {
    const Privileges privileges = load("/privilege/x 4294967294 0000000777");
    EXPECT_TRUE(privileges.holds(4294967294, kNoGroup, "/privilege/x"));
    EXPECT_TRUE(privileges.holds(777, kNoGroup, "/privilege/x"));
    EXPECT_FALSE(privileges.holds(500, kNoGroup, "/privilege/x"));
}

TEST_F(APrivilegesFile, NamesGroupsOfAnySizeAndMembersOfAnyNumberOfThem) {
    std::string groups = "large:x:700:";
    for (int i = 0; i < 1'000; ++i)
        groups += "somebody" + std::to_string(i) + ",";
    groups += "monitor\n";
    for (int i = 0; i < 150; ++i)
        groups += "small" + std::to_string(i) + ":x:" + std::to_string(1'000 + i) + ":monitor\n";
    write("/run/group", groups);
    const Privileges privileges = load("/privilege/large @large\n/privilege/last @small149\n");
    EXPECT_TRUE(privileges.problems().empty());
    EXPECT_TRUE(privileges.holds(501, 501, "/privilege/large"));
    EXPECT_TRUE(privileges.holds(501, 501, "/privilege/last"));
    EXPECT_FALSE(privileges.holds(500, 500, "/privilege/last"));
}

TEST_F(APrivilegesFile, AddsUpTheLinesOfOnePrivilege) {
    const Privileges privileges = load("/privilege/x operator\n/privilege/x\tmonitor\n");
    EXPECT_TRUE(privileges.holds(500, kNoGroup, "/privilege/x"));
    EXPECT_TRUE(privileges.holds(501, kNoGroup, "/privilege/x"));
}

TEST_F(APrivilegesFile, CountsThePathOfAnIdentifierAlone) {
    const Privileges privileges = load("/privilege/x operator");
    for (const char *name : {"http://vpk/privilege/x", "https://other.host:80/privilege/x", "/privilege/x",
                             "vpk:///privilege/x", "http://vpk/privilege/x?y#z"})
        EXPECT_TRUE(privileges.holds(500, kNoGroup, name)) << name;
    for (const char *name : {"", "/", "http://vpk", "http:///privilege/y", "/privilege/x/", "/privilege/xy",
                             "privilege/x", "http://vpk/a/privilege/x"})
        EXPECT_FALSE(privileges.holds(500, kNoGroup, name)) << name;
}

TEST_F(APrivilegesFile, HasVoidLinesThatAreNamedWithWhatIsWrongThere) {
    const struct {
        const char *text;
        const char *message;
    } cases[] = {
        {"/a operator\nvpk.firewall operator", ":2: \"vpk.firewall\" is no privilege's path, which begins with \"/\""},
        {"\n\n/a nobody-here", ":3: no user \"nobody-here\"; a group's name follows \"@\""},
        {"/a @nothing-here", ":1: no group \"nothing-here\""},
        {"/a @", ":1: no group \"\""},
        {"/a 4294967295", ":1: no user \"4294967295\"; a group's name follows \"@\""},
        {"/a -1", ":1: no user \"-1\"; a group's name follows \"@\""},
        {"/a 00000000500", ":1: no user \"00000000500\"; a group's name follows \"@\""},
    };
    for (const auto &wrong : cases) {
        const Privileges privileges = load(wrong.text);
        ASSERT_EQ(privileges.problems().size(), 1U) << wrong.text;
        const std::string message = wrong.message;
        const std::size_t line = message.find(": ");
        EXPECT_EQ(privileges.problems()[0],
                  kFile + message.substr(0, line) + ": the line is void" + message.substr(line));
    }
}

TEST_F(APrivilegesFile, KeepsTheOtherLinesOfOneThatIsVoid) {
    const Privileges privileges =
        load("/privilege/x operator gone\n/privilege/x monitor\n/privilege/y @gone operator\n");
    EXPECT_EQ(privileges.problems().size(), 2U);
    EXPECT_TRUE(privileges.holds(501, kNoGroup, "/privilege/x"));
    EXPECT_FALSE(privileges.holds(500, kNoGroup, "/privilege/x")) << "the whole line is void";
    EXPECT_FALSE(privileges.holds(500, kNoGroup, "/privilege/y"));
}

TEST_F(APrivilegesFile, LeavesRootAloneWhenItCannotBeRead) {
    ASSERT_EQ(0, ::mkfifo("/run/pipe", 0600));
    const std::pair<std::string, const char *> cases[]{
        {"/run", "it is a directory of account 0, where a file should be"},
        {"/run/pipe", "it is a fifo of account 0, where a file should be"},
        {"/run/passwd/below", "Not a directory"},
        {"/proc/self/mem", "Input/output error"},
    };
    for (const auto &[path, why] : cases) {
        const Privileges privileges = Privileges::load(path);
        ASSERT_EQ(privileges.problems().size(), 1U) << path;
        EXPECT_EQ(privileges.problems()[0], path + ": cannot be read: " + why + "; root alone is served");
        EXPECT_TRUE(privileges.holds(0, 0, "/privilege/x"));
        EXPECT_FALSE(privileges.holds(500, 500, "/privilege/x"));
    }
}

TEST_F(APrivilegesFile, TellsWhoHoldsAnyPrivilege) {
    const Privileges privileges = load("/privilege/x operator\n/privilege/y @netdev\n/privilege/z nobody-here\n");
    EXPECT_TRUE(privileges.holdsAny(0, 0));
    EXPECT_TRUE(privileges.holdsAny(500, kNoGroup));
    EXPECT_TRUE(privileges.holdsAny(501, kNoGroup));
    EXPECT_FALSE(privileges.holdsAny(777, kNoGroup));
}

} // namespace
