// What commands make of one chain: its rules, its jumps, and what is to be sent.
#include "rlv/table/pending-chain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/rule-text.h"

namespace {

using rlv::Command;
using rlv::Origin;
using rlv::PendingChain;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Texts = std::vector<std::string>;
using Places = std::vector<std::size_t>;

Command parsed(const std::string &options) { return std::get<Command>(rlv::parseCommand(options, "VPK-")); }

rlv::Rule rule(const std::string &text) { return parsed("-A VPK-A " + text).rule; }

Origin by(std::uint64_t number) { return {number, "command " + std::to_string(number)}; }

class APendingChain : public testing::Test {
protected:
    // With the handles 11, 12, 13, …
    void stands(const Texts &rules) {
        std::uint64_t handle = 10;
        for (const std::string &text : rules) {
            standing.rules.push_back({++handle, rule(text)});
            if (standing.rules.back().rule->target.kind == rlv::Target::Kind::jump)
                ++chain.jumps[standing.rules.back().rule->target.text];
        }
    }
    void remove(std::size_t place, std::uint64_t command) { chain.remove(place, standing.rules, by(command)); }
    void append(const std::string &text, std::uint64_t command) { chain.append(rule(text), by(command)); }
    std::optional<Places> places(const Texts &rules) const {
        std::vector<Command> commands;
        for (const std::string &text : rules)
            commands.push_back(parsed("-D VPK-A " + text));
        return chain.placesOf(commands, standing.rules);
    }
    std::size_t size() const { return chain.size(standing.rules); }
    Texts appended() const {
        Texts texts;
        for (const rlv::Rule *one : chain.appendedRules())
            texts.push_back(describe(*one));
        return texts;
    }
    // "2 -A VPK-A -j DROP", by whom and what.
    Texts commands(bool isMadeByRules = false) const {
        std::vector<rlv::PendingCommand> all;
        chain.addCommands("VPK-A", isMadeByRules, standing.rules, all);
        Texts texts;
        for (const auto &[command, origin] : all) {
            static const std::map<Command::Action, std::string> options{{Command::Action::makeChain, "-N"},
                                                                        {Command::Action::flushChain, "-F"},
                                                                        {Command::Action::deleteRule, "-D"},
                                                                        {Command::Action::appendRule, "-A"},
                                                                        {Command::Action::removeChain, "-X"}};
            const bool hasRule =
                command.action == Command::Action::deleteRule || command.action == Command::Action::appendRule;
            texts.push_back(std::to_string(origin.number) + " " + options.at(command.action) + " " + command.chain +
                            (hasRule ? " " + describe(command.rule) : ""));
        }
        return texts;
    }
    Texts carriedOut(rlv::PlanLimits limits = {}) {
        chain.carryOut(chain.plan(standing.rules, limits), standing);
        Texts texts;
        for (const auto &one : standing.rules)
            texts.push_back(describe(*one.rule) + " #" + std::to_string(one.handle));
        return texts;
    }

    rlv::StandingChain standing;
    PendingChain chain;
};

TEST_F(APendingChain, IsUntouchedAtFirst) {
    stands({"-j DROP"});
    EXPECT_TRUE(chain.areRulesUntouched());
    EXPECT_EQ(1U, size());
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(APendingChain, IsTouchedByAnyChangeOfItsRules) {
    stands({"-j DROP"});
    PendingChain flushed = chain;
    flushed.flush({}, by(1));
    EXPECT_FALSE(flushed.areRulesUntouched()) << "though it is empty";
    PendingChain grown = chain;
    grown.append(rule("-j DROP"), by(1));
    EXPECT_FALSE(grown.areRulesUntouched());
    remove(0, 1);
    EXPECT_FALSE(chain.areRulesUntouched());
}

TEST_F(APendingChain, FindsTheFirstPlaceOfARule) {
    stands({"-j ACCEPT", "-j DROP", "-j DROP"});
    append("-j DROP", 1);
    append("-j VPK-B", 1);
    EXPECT_EQ(Places({1}), places({"-j DROP"}));
    EXPECT_EQ(Places({4}), places({"-j VPK-B"}));
    EXPECT_EQ(Places({3, 2, 1}), places({"-j DROP", "-j DROP", "-j DROP"})) << "each another one";
    EXPECT_EQ(Places({4, 0}), places({"-j ACCEPT", "-j VPK-B"})) << "places fall";
    EXPECT_EQ(std::nullopt, places({"-j DROP", "-j DROP", "-j DROP", "-j DROP"}));
    EXPECT_EQ(std::nullopt, places({"-j DROP", "-j VPK-C"}));
    remove(1, 2);
    EXPECT_EQ(Places({2}), places({"-j DROP"})) << "what is doomed is there no more";
}

TEST_F(APendingChain, TakesRulesOfOthersForNone) {
    standing.rules.push_back({11, std::nullopt});
    EXPECT_EQ(std::nullopt, places({"-j ACCEPT"}));
}

TEST_F(APendingChain, DoomsStandingRulesAndTakesBackAppendedOnes) {
    stands({"-j ACCEPT", "-j DROP"});
    append("-s 10.0.0.1 -j DROP", 1);
    append("-s 10.0.0.2 -j DROP", 1);
    remove(2, 2);
    EXPECT_THAT(appended(), ElementsAre("-s 10.0.0.2/32 -j DROP"));
    EXPECT_EQ(0U, chain.doomedCount);
    EXPECT_THAT(chain.doomed, IsEmpty());
    remove(1, 3);
    EXPECT_EQ(1U, chain.doomedCount);
    EXPECT_THAT(chain.doomed, ElementsAre(false, true));
    EXPECT_EQ(2U, size());
    EXPECT_THAT(commands(), ElementsAre("3 -D VPK-A -j DROP", "1 -A VPK-A -s 10.0.0.2/32 -j DROP"));
}

TEST_F(APendingChain, CountsTheJumpsOfAllItsRules) {
    stands({"-j VPK-B", "-s 10.0.0.1 -j VPK-B"});
    append("-j VPK-B", 1);
    append("-j VPK-C", 1);
    append("-j DROP", 1);
    EXPECT_THAT(chain.jumps, ElementsAre(Pair("VPK-B", 3), Pair("VPK-C", 1)));
    remove(3, 2);
    remove(2, 2);
    remove(0, 2);
    EXPECT_THAT(chain.jumps, ElementsAre(Pair("VPK-B", 1)));
    remove(1, 2);
    EXPECT_THAT(chain.jumps, IsEmpty());
}

TEST_F(APendingChain, HasNothingLeftWhenItIsFlushed) {
    stands({"-j VPK-B", "-j DROP"});
    append("-j VPK-B", 1);
    remove(1, 2);
    chain.flush(standing.rules, by(3));
    EXPECT_EQ(0U, size());
    EXPECT_THAT(chain.jumps, IsEmpty());
    EXPECT_THAT(commands(), ElementsAre("3 -F VPK-A"));
    append("-j DROP", 4);
    chain.flush(standing.rules, by(5));
    EXPECT_THAT(commands(), ElementsAre("3 -F VPK-A")) << "the first one counts";
    EXPECT_EQ("command 3", chain.flushed.options);
    EXPECT_THAT(chain.doomed, ElementsAre(true, true));
}

TEST_F(APendingChain, TakesBackWhatIsBehindAPlace) {
    stands({"-j VPK-B"});
    append("-j VPK-B", 1);
    append("-j VPK-C", 2);
    append("-j VPK-B", 2);
    chain.jumps.emplace("VPK-D", 0); // as an append that failed has left it
    chain.takeBackFrom(1);
    EXPECT_THAT(appended(), ElementsAre("-j VPK-B"));
    EXPECT_THAT(chain.jumps, ElementsAre(Pair("VPK-B", 2)));
    chain.takeBackFrom(1);
    EXPECT_EQ(1U, appended().size());
    chain.takeBackFrom(0);
    EXPECT_THAT(appended(), IsEmpty());
}

TEST_F(APendingChain, TakesBackTheRulesOfCommands) {
    append("-j VPK-B", 1);
    append("-j VPK-B", 2);
    append("-j VPK-C", 3);
    append("-j DROP", 1);
    EXPECT_EQ(3U, chain.takeBack({1, 3}));
    EXPECT_THAT(appended(), ElementsAre("-j VPK-B"));
    EXPECT_THAT(chain.jumps, ElementsAre(Pair("VPK-B", 1)));
    EXPECT_EQ(0U, chain.takeBack({7}));
}

TEST_F(APendingChain, TellsTheCommandsThatItComesTo) {
    stands({"-j ACCEPT", "-j DROP"});
    remove(1, 5);
    remove(0, 4);
    append("-j DROP", 6);
    EXPECT_THAT(commands(), ElementsAre("5 -D VPK-A -j DROP", "4 -D VPK-A -j ACCEPT", "6 -A VPK-A -j DROP"));
    chain.made = by(3);
    EXPECT_EQ("3 -N VPK-A", commands().front());
    EXPECT_EQ("5 -D VPK-A -j DROP", commands(true).front()) << "its rules make it";
    chain.exists = false;
    chain.removed = by(9);
    EXPECT_EQ("5 -D VPK-A -j DROP", commands().front());
    EXPECT_EQ("9 -X VPK-A", commands().back());
}

TEST_F(APendingChain, IsAsLastRemovedOnlyWhereItIsGone) {
    chain.removed = by(9);
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(APendingChain, BecomesWhatIsSentWithTheHandlesThatAreKnown) {
    stands({"-j ACCEPT", "-j DROP", "-s 10.0.0.1 -j DROP"});
    remove(0, 1);
    EXPECT_THAT(carriedOut(), ElementsAre("-j DROP #12", "-s 10.0.0.1/32 -j DROP #13"));
    EXPECT_TRUE(standing.handlesKnown);
}

TEST_F(APendingChain, HasRulesWithoutHandlesOnceSomeAreNew) {
    stands({"-j ACCEPT"});
    append("-j VPK-B", 1);
    EXPECT_THAT(carriedOut(), ElementsAre("-j ACCEPT #11", "-j VPK-B #0"));
    EXPECT_FALSE(standing.handlesKnown);
    EXPECT_THAT(standing.jumps, ElementsAre(Pair("VPK-B", 1)));
}

TEST_F(APendingChain, KnowsItsHandlesWithoutRules) {
    stands({"-j ACCEPT"});
    standing.handlesKnown = false;
    PendingChain untouched = chain;
    untouched.carryOut(untouched.plan(standing.rules, {}), standing);
    EXPECT_FALSE(standing.handlesKnown);
    remove(0, 1);
    EXPECT_THAT(carriedOut(), IsEmpty());
    EXPECT_TRUE(standing.handlesKnown);
}

TEST_F(APendingChain, KeepsTheHandleOfARuleThatIsAppendedAgain) {
    stands({"-j ACCEPT", "-j DROP"});
    remove(1, 1);
    append("-j DROP", 2);
    append("-j ACCEPT", 3);
    rlv::PlanLimits limits;
    limits.mayMatch = true;
    EXPECT_THAT(carriedOut(limits), ElementsAre("-j ACCEPT #11", "-j DROP #12", "-j ACCEPT #0"));
}

} // namespace
