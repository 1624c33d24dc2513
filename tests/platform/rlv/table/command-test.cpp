// The grammar of the option texts: what is understood, and as what; what is refused, and with which word named.
#include "rlv/table/command.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/rule-text.h"

using rlv::Answer;
using rlv::Command;
using rlv::Rule;
using testing::HasSubstr;

namespace {

const std::string kPrefix = "VPK-";

struct GoodRule {
    std::string text;  // after "-A VPK-X "
    std::string shown; // as iptables -S shows it
};

struct BadText {
    std::string text;
    std::string named; // what the message must have
};

Command understood(const std::string &text) {
    const auto result = rlv::parseCommand(text, kPrefix);
    if (const auto *const command = std::get_if<Command>(&result))
        return *command;
    ADD_FAILURE() << text << ": " << std::get<Answer>(result).message;
    return {};
}

Answer refused(const std::string &text) {
    const auto result = rlv::parseCommand(text, kPrefix);
    if (const auto *const answer = std::get_if<Answer>(&result))
        return *answer;
    ADD_FAILURE() << "understood: " << testing::PrintToString(text);
    return {};
}

void expectUnderstood(const std::vector<GoodRule> &rules) {
    for (const GoodRule &good : rules) {
        SCOPED_TRACE(good.text);
        const Command command = understood("-A VPK-X " + good.text);
        EXPECT_EQ(Command::Action::appendRule, command.action);
        EXPECT_EQ("VPK-X", command.chain);
        EXPECT_EQ(good.shown, describe(command.rule));
        EXPECT_EQ("", command.sourceName + command.destinationName);
    }
}

TEST(ARule, IsUnderstood) {
    expectUnderstood(
        {{"-j ACCEPT", "-j ACCEPT"},
         {"-j DROP", "-j DROP"},
         {"-j VPK-Y", "-j VPK-Y"},
         {"-j LOG -v --log-prefix=IPTables-Dropped:", "-j LOG --log-prefix \"IPTables-Dropped:\""},
         {"-j LOG -v --log-prefix=a_B-9", "-j LOG --log-prefix a_B-9"},
         {"-j LOG -v --log-prefix=12345678901234567890123456789", "-j LOG --log-prefix 12345678901234567890123456789"},
         {"-s 10.0.0.5 -j DROP", "-s 10.0.0.5/32 -j DROP"},
         {"-s 0.0.0.0 -j DROP", "-s 0.0.0.0/32 -j DROP"},
         {"-d 255.255.255.255 -j DROP", "-d 255.255.255.255/32 -j DROP"},
         {"-d 10.1.2.3/12 -j DROP", "-d 10.0.0.0/12 -j DROP"},
         {"-s 10.1.2.3/1 -j DROP", "-s 0.0.0.0/1 -j DROP"},
         {"-s 10.1.2.255/31 -j DROP", "-s 10.1.2.254/31 -j DROP"},
         {"-s 10.1.2.3/0 -j DROP", "-j DROP"},
         {"-p tcp -j DROP", "-p tcp -j DROP"},
         {"-p TCP -j DROP", "-p tcp -j DROP"},
         {"-p 6 -j DROP", "-p tcp -j DROP"},
         {"-p Icmp -j DROP", "-p icmp -j DROP"},
         {"-p udplite -j DROP", "-p udplite -j DROP"},
         {"-p gre -j DROP", "-p gre -j DROP"},
         {"-p esp -j DROP", "-p esp -j DROP"},
         {"-p 255 -j DROP", "-p 255 -j DROP"},
         {"-p 0 -j DROP", "-j DROP"},
         {"-p ALL -j DROP", "-j DROP"},
         {"-p tcp --sport 0 -j DROP", "-p tcp -m tcp --sport 0 -j DROP"},
         {"-p udp --dport 65535 -j DROP", "-p udp -m udp --dport 65535 -j DROP"},
         {"-p sctp --sport 5:9 -j DROP", "-p sctp -m sctp --sport 5:9 -j DROP"},
         {"-p dccp --dport 80:80 -j DROP", "-p dccp -m dccp --dport 80 -j DROP"},
         {"-p tcp --dport :80 -j DROP", "-p tcp -m tcp --dport 0:80 -j DROP"},
         {"-p tcp --dport 80: -j DROP", "-p tcp -m tcp --dport 80:65535 -j DROP"},
         {"-p tcp --sport 0:65535 -j DROP", "-p tcp -m tcp -j DROP"},
         {"-p udp --dport : -j DROP", "-p udp -m udp -j DROP"},
         {"-p sctp --dport 0:65535 -j DROP", "-p sctp -m sctp --dport 0:65535 -j DROP"},
         {"-p tcp -s 10.0.0.5 --sport 80 -j VPK-LOGANDDROP",
          "-s 10.0.0.5/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP"},
         {"-p udp -d 10.0.0.0/8 --dport 8000:8080 -j ACCEPT",
          "-d 10.0.0.0/8 -p udp -m udp --dport 8000:8080 -j ACCEPT"}});
}

void expectRefused(const std::vector<BadText> &texts) {
    for (const BadText &bad : texts) {
        SCOPED_TRACE(testing::PrintToString(bad.text));
        const Answer answer = refused(bad.text);
        EXPECT_EQ(2, answer.code);
        EXPECT_THAT(answer.message, HasSubstr(bad.named));
        EXPECT_THAT(answer.message, HasSubstr(": expected "));
        EXPECT_EQ(std::string::npos, answer.message.find_first_of(std::string("\n\t\x1b\0", 4)));
    }
}

TEST(ABadText, OfAnyOtherShapeIsRefusedAndNamed) {
    expectRefused({{"", "\"\""},
                   {" ", "\" \""},
                   {"-F", "nothing after \"-F\""},
                   {"-F VPK-X ", "blanks"},
                   {" -F VPK-X", "blanks"},
                   {"-F  VPK-X", "blanks"},
                   {"-F VPK-X VPK-Y", "\"VPK-Y\""},
                   {"-N VPK-X -j DROP", "\"-j\""},
                   {"-L VPK-X", "\"-L\""},
                   {"-t nat -F VPK-X", "\"-t\""},
                   {"-FVPK-X", "\"-FVPK-X\""},
                   {"-P INPUT DROP", "\"-P\""},
                   {"--flush VPK-X", "\"--flush\""},
                   {"-I VPK-X -j DROP", "\"-I\""},
                   {"-R VPK-X 1 -j DROP", "\"-R\""},
                   {"-E VPK-X VPK-Y", "\"-E\""},
                   {"-Z VPK-X", "\"-Z\""},
                   {"-A VPK-X", "nothing after \"VPK-X\""},
                   {"-A VPK-X -p tcp", "nothing after \"tcp\""},
                   {"-A VPK-X -p", "nothing after \"-p\""},
                   {"-A VPK-X -j", "nothing after \"-j\""},
                   {"-A VPK-X -t nat -j DROP", "\"-t\""},
                   {"-A VPK-X --modprobe=/bin/sh -j DROP", "\"--modprobe="},
                   {"-A VPK-X ! -s 10.0.0.5 -j DROP", "\"!\""},
                   {"-A VPK-X -s ! 10.0.0.5 -j DROP", "\"!\""},
                   {"-A VPK-X -p !tcp -j DROP", "\"!tcp\""},
                   {"-A VPK-X -i lo -j DROP", "\"-i\""},
                   {"-A VPK-X -m comment -j DROP", "\"-m\""},
                   {"-A VPK-X -j DROP -j ACCEPT", "\"-j\""},
                   {"-A VPK-X -j DROP -p tcp", "\"-p\""},
                   {"-A VPK-X -s 10.0.0.5 -p tcp -j DROP", "\"-p\""},
                   {"-A VPK-X -p tcp -p udp -j DROP", "\"-p\""},
                   {"-A VPK-X -p tcp --sport 5 -s 10.0.0.5 -j DROP", "\"-s\""},
                   {"-A VPK-X -s 10.0.0.5 -s 10.0.0.6 -j DROP", "\"-s\""},
                   {"-A VPK-X -s 10.0.0.5 -d 10.0.0.6 -j DROP", "\"-d\""},
                   {"-A VPK-X -p tcp --sport 5 --dport 6 -j DROP", "\"--dport\""},
                   {"-A VPK-X -p tcp -s 10.0.0.5 --dport 6 -j DROP", "\"--dport\""},
                   {"-A VPK-X -g VPK-Y", "\"-g\""},
                   {"-A VPK-X\t-j DROP", "\\x09"},
                   {"-A VPK-X -j DROP\n-F VPK-Y", "\\x0a"},
                   {std::string("-F VPK-X\0", 9), "\\x00"},
                   {"-F VPK-\xc3\xa4", "\\xc3\\xa4"},
                   {"-F VPK-\x1b[2J", "\\x1b"},
                   {"-F VPK-\x7f", "\\x7f"},
                   {"-F VPK-" + std::string(2000, 'a'), "too long"}});
}

TEST(ABadText, OfForeignChainsAndTargetsIsRefusedAndNamed) {
    expectRefused({{"-F INPUT", "\"INPUT\""},
                   {"-N INPUT", "\"INPUT\""},
                   {"-X OUTPUT", "\"OUTPUT\""},
                   {"-A FORWARD -j VPK-X", "\"FORWARD\""},
                   {"-F OTHER", "\"OTHER\""},
                   {"-F vpk-x", "\"vpk-x\""},
                   {"-F xVPK-X", "\"xVPK-X\""},
                   {"-F VPK", "\"VPK\""},
                   {"-N VPK-1234567890123456789012345", "VPK-"},
                   {"-N VPK-a/b", "\"VPK-a/b\""},
                   {"-N VPK-a\"b", "VPK-a\\x22b"},
                   {"-N VPK-a;b", "\"VPK-a;b\""},
                   {"-A INPUT -j ACCEPT", "\"ACCEPT\""},
                   {"-A OUTPUT -j DROP", "\"DROP\""},
                   {"-A INPUT -j LOG -v --log-prefix=a", "\"LOG\""},
                   {"-A INPUT -j OTHER", "\"OTHER\""},
                   {"-A INPUT -p tcp -j VPK-X", "\"-p\""},
                   {"-A INPUT -s 10.0.0.5 -j VPK-X", "\"-s\""},
                   {"-D OUTPUT -d a.example -j VPK-X", "\"-d\""},
                   {"-A VPK-X -j REJECT", "\"REJECT\""},
                   {"-A VPK-X -j INPUT", "\"INPUT\""},
                   {"-A VPK-X -j RETURN", "\"RETURN\""},
                   {"-A VPK-X -j accept", "\"accept\""},
                   {"-A VPK-X -j LOG", "nothing after \"LOG\""},
                   {"-A VPK-X -j LOG --log-prefix=a", "\"--log-prefix=a\""},
                   {"-A VPK-X -j LOG -v", "nothing after \"-v\""},
                   {"-A VPK-X -j LOG -v --log-prefix=", "\"\""},
                   {"-A VPK-X -j LOG -v --log-prefix a", "\"--log-prefix\""},
                   {"-A VPK-X -j LOG -v --log-level=1", "\"--log-level=1\""},
                   {"-A VPK-X -j LOG -v --log-prefix=a --log-uid", "\"--log-uid\""},
                   {"-A VPK-X -j LOG -v --log-prefix=a%s", "\"a%s\""},
                   {"-A VPK-X -j LOG -v --log-prefix=123456789012345678901234567890", "log prefix"}});
}

TEST(ABadText, OfBadValuesIsRefusedAndNamed) {
    expectRefused({{"-A VPK-X -s 10.5 -j DROP", "\"10.5\""},
                   {"-A VPK-X -s 0x7f.1 -j DROP", "\"0x7f.1\""},
                   {"-A VPK-X -s 010.0.0.1 -j DROP", "\"010.0.0.1\""},
                   {"-A VPK-X -s 10.0.0.256 -j DROP", "\"10.0.0.256\""},
                   {"-A VPK-X -d 10.0.0.5,0.0.0.0/0 -j DROP", "\"10.0.0.5,0.0.0.0/0\""},
                   {"-A VPK-X -d 10.0.0.5. -j DROP", "\"10.0.0.5.\""},
                   {"-A VPK-X -d 10.0.0.5.1 -j DROP", "\"10.0.0.5.1\""},
                   {"-A VPK-X -d 10.0.0 -j DROP", "\"10.0.0\""},
                   {"-A VPK-X -d 1 -j DROP", "\"1\""},
                   {"-A VPK-X -d 0x7f000001 -j DROP", "\"0x7f000001\""},
                   {"-A VPK-X -d a.0X1 -j DROP", "\"a.0X1\""},
                   {"-A VPK-X -d a.1 -j DROP", "\"a.1\""},
                   {"-A VPK-X -d 10.0.0.5/33 -j DROP", "\"10.0.0.5/33\""},
                   {"-A VPK-X -d 10.0.0.5/08 -j DROP", "\"10.0.0.5/08\""},
                   {"-A VPK-X -d 10.0.0.5/ -j DROP", "\"10.0.0.5/\""},
                   {"-A VPK-X -d 10.0.0.5/255.0.0.0 -j DROP", "255.0.0.0"},
                   {"-A VPK-X -d a.example/8 -j DROP", "\"a.example/8\""},
                   {"-A VPK-X -d 10.0.0.-5 -j DROP", "\"10.0.0.-5\""},
                   {"-A VPK-X -d +1.0.0.5 -j DROP", "\"+1.0.0.5\""},
                   {"-A VPK-X -d ::1 -j DROP", "\"::1\""},
                   {"-A VPK-X -d a..b -j DROP", "\"a..b\""},
                   {"-A VPK-X -d .a -j DROP", "\".a\""},
                   {"-A VPK-X -d a.. -j DROP", "\"a..\""},
                   {"-A VPK-X -d . -j DROP", "\".\""},
                   {"-A VPK-X -d -a.example -j DROP", "\"-a.example\""},
                   {"-A VPK-X -d * -j DROP", "\"*\""},
                   {"-A VPK-X -d " + std::string(64, 'a') + ".example -j DROP", "aaa"},
                   {"-A VPK-X -d " + std::string(127, 'a') + " -j DROP", "aaa"},
                   {"-A VPK-X -p tcp --sport 65536 -j DROP", "\"65536\""},
                   {"-A VPK-X -p udp --sport 65536 -j DROP", "\"65536\""},
                   {"-A VPK-X -p udp --sport 1:65536 -j DROP", "\"1:65536\""},
                   {"-A VPK-X -p udp --sport 4294967297 -j DROP", "\"4294967297\""},
                   {"-A VPK-X -p udp --sport 99999999999999999999 -j DROP", "\"99999999999999999999\""},
                   {"-A VPK-X -p tcp --sport 080 -j DROP", "\"080\""},
                   {"-A VPK-X -p tcp --sport 0x50 -j DROP", "\"0x50\""},
                   {"-A VPK-X -p tcp --sport -1 -j DROP", "\"-1\""},
                   {"-A VPK-X -p tcp --sport http -j DROP", "\"http\""},
                   {"-A VPK-X -p tcp --sport 1:2:3 -j DROP", "\"1:2:3\""},
                   {"-A VPK-X -p tcp --sport 5:3 -j DROP", "\"5:3\""},
                   {"-A VPK-X -p udp --sport 5:3 -j DROP", "\"5:3\""},
                   {"-A VPK-X -p tcp --sport 1-2 -j DROP", "\"1-2\""},
                   {"-A VPK-X -p tcp --sport 1,2 -j DROP", "\"1,2\""},
                   {"-A VPK-X --sport 80 -j DROP", "\"--sport\""},
                   {"-A VPK-X -p icmp --dport 80 -j DROP", "\"--dport\""},
                   {"-A VPK-X -p udplite --dport 80 -j DROP", "\"--dport\""},
                   {"-A VPK-X -p all --dport 80 -j DROP", "\"--dport\""},
                   {"-A VPK-X -p 256 -j DROP", "\"256\""},
                   {"-A VPK-X -p 06 -j DROP", "\"06\""},
                   {"-A VPK-X -p 0x6 -j DROP", "\"0x6\""},
                   {"-A VPK-X -p bogus -j DROP", "\"bogus\""},
                   {"-A VPK-X -p tcp,udp -j DROP", "\"tcp,udp\""}});
}

TEST(AHostName, IsKeptForLookup) {
    const std::vector<std::string> names{
        "a",       "localhost", "a.example",  "A.Example.",        "1and1.example", "10.example", "0x7f.example",
        "a-b.c_d", "1e5",       "127.0.0.1a", std::string(63, 'a')};
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        const Command source = understood("-A VPK-X -p tcp -s " + name + " --sport 80 -j DROP");
        EXPECT_EQ(name, source.sourceName);
        EXPECT_EQ("", source.destinationName);
        EXPECT_EQ("-p tcp -m tcp --sport 80 -j DROP", describe(source.rule));
        EXPECT_EQ(name, understood("-D VPK-X -d " + name + " -j DROP").destinationName);
    }
}

TEST(ACommand, IsUnderstoodWithItsChain) {
    const std::vector<std::pair<std::string, Command::Action>> table{
        {"-F VPK-X", Command::Action::flushChain},         {"-N VPK-X", Command::Action::makeChain},
        {"-X VPK-X", Command::Action::removeChain},        {"-A VPK-X -j DROP", Command::Action::appendRule},
        {"-D VPK-X -j DROP", Command::Action::deleteRule},
    };
    for (const auto &[text, action] : table) {
        EXPECT_EQ(action, understood(text).action) << text;
        EXPECT_EQ("VPK-X", understood(text).chain) << text;
    }
}

TEST(ACommand, MayHookAnOwnChainIntoInputAndOutput) {
    for (const std::string text :
         {"-A INPUT -j VPK-X", "-D INPUT -j VPK-X", "-A OUTPUT -j VPK-X", "-D OUTPUT -j VPK-X"})
        EXPECT_EQ("-j VPK-X", describe(understood(text).rule)) << text;
}

TEST(ACommand, TakesChainNamesOf28CharactersAndNoMore) {
    EXPECT_EQ("VPK-123456789012345678901234", understood("-N VPK-123456789012345678901234").chain);
    EXPECT_EQ(2, refused("-N VPK-1234567890123456789012345").code);
}

TEST(ACommand, IsBoundToThePrefixOfTheService) {
    EXPECT_TRUE(std::holds_alternative<Command>(rlv::parseCommand("-F MINE.x", "MINE.")));
    EXPECT_TRUE(std::holds_alternative<Answer>(rlv::parseCommand("-F VPK-x", "MINE.")));
}

TEST(ACommand, NeverOwnsBuiltInChainsWhateverThePrefix) {
    for (const std::string prefix : {"", "I", "INPUT"}) {
        EXPECT_TRUE(std::holds_alternative<Answer>(rlv::parseCommand("-F INPUT", prefix))) << prefix;
        EXPECT_TRUE(std::holds_alternative<Answer>(rlv::parseCommand("-A INPUT -j DROP", prefix))) << prefix;
    }
}

TEST(ACommand, IsShownOnlyInPartWhenItIsLong) {
    EXPECT_LT(refused("-F VPK-" + std::string(5000, 'a')).message.size(), 200U);
}

TEST(TwoRules, AreEqualOnlyWhenEveryFieldIs) {
    const std::vector<std::string> rules{"-j DROP",
                                         "-j ACCEPT",
                                         "-j VPK-Y",
                                         "-j VPK-Z",
                                         "-j LOG -v --log-prefix=a",
                                         "-j LOG -v --log-prefix=b",
                                         "-p tcp -j DROP",
                                         "-p udp -j DROP",
                                         "-s 10.0.0.5 -j DROP",
                                         "-s 10.0.0.4/31 -j DROP",
                                         "-s 10.0.0.4/32 -j DROP",
                                         "-d 10.0.0.5 -j DROP",
                                         "-p tcp --sport 80 -j DROP",
                                         "-p tcp --sport 80:81 -j DROP",
                                         "-p tcp --sport 79:80 -j DROP",
                                         "-p tcp --dport 80 -j DROP",
                                         "-p tcp --dport : -j DROP"};
    for (std::size_t i = 0; i < rules.size(); ++i) {
        for (std::size_t j = 0; j < rules.size(); ++j) {
            const Rule left = understood("-A VPK-X " + rules[i]).rule;
            const Rule right = understood("-A VPK-X " + rules[j]).rule;
            EXPECT_EQ(i == j, left == right) << rules[i] << " and " << rules[j];
            EXPECT_NE(left == right, left != right);
        }
    }
}

} // namespace
