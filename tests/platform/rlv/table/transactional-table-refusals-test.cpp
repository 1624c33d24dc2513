// What the kernel refuses of a table that a foreign program changes before every transaction.
#include "rlv/table/transactional-table.h"

#include <cerrno>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/rule-text.h"
#include "scripted-backend.h"

namespace {

using rlv::Change;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

rlv::Command parsed(const std::string &options) { return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-")); }

class ATableThatNeverRests : public testing::Test {
protected:
    ATableThatNeverRests() {
        auto owned = std::make_unique<scripted::Backend>();
        backend = owned.get();
        table = std::make_unique<rlv::TransactionalTable>(std::move(owned), "VPK-");
        done({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-A"});
        backend->beforeCommit = [this] { backend->append("INPUT", parsed("-A VPK-A -s 10.9.9.9 -j DROP").rule); };
    }

    Texts done(const Texts &commands) {
        table->open();
        for (const std::string &options : commands)
            EXPECT_EQ(0, table->apply({parsed(options)}, options).code) << options;
        Texts lost;
        for (const rlv::LostCommand &command : table->push().lost)
            lost.push_back(command.options);
        return lost;
    }

    void refuseRule(const std::string &text, int error) {
        backend->refuse = [text, error](const Change &change) {
            return change.rule != nullptr && describe(*change.rule) == text ? error : 0;
        };
    }

    Texts rules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = backend->truth();
        for (const rlv::StandingRule &standing : truth.chains.at(chain).rules)
            texts.push_back(describe(*standing.rule));
        return texts;
    }

    scripted::Backend *backend = nullptr;
    std::unique_ptr<rlv::TransactionalTable> table;
};

// A match that the kernel does not have gives ENOENT, just as a chain does that somebody has removed.
TEST_F(ATableThatNeverRests, LosesTheRefusedRuleAlone) {
    for (const int error : {ENOENT, EEXIST, EBUSY, EINVAL}) {
        refuseRule("-p dccp -m dccp --sport 80 -j DROP", error);
        EXPECT_THAT(done({"-F VPK-A", "-A VPK-A -s 10.0.0.2 -j DROP", "-A VPK-A -p dccp --sport 80 -j DROP",
                          "-A VPK-A -s 10.0.0.3 -j DROP"}),
                    ElementsAre("-A VPK-A -p dccp --sport 80 -j DROP"))
            << error;
        EXPECT_THAT(rules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP", "-s 10.0.0.3/32 -j DROP")) << error;
    }
}

TEST_F(ATableThatNeverRests, FindsTheRefusedRuleInFewReadings) {
    refuseRule("-p dccp -m dccp --sport 80 -j DROP", ENOENT);
    const std::size_t before = backend->readings;
    done({"-F VPK-A", "-A VPK-A -p dccp --sport 80 -j DROP"});
    EXPECT_LT(backend->readings - before, 25U);
}

TEST_F(ATableThatNeverRests, KeepsAllOthersWhereEachOfManyRulesIsRefused) {
    backend->refuse = [](const Change &change) {
        return change.rule != nullptr && change.rule->protocol == 33 ? ENOENT : 0;
    };
    Texts commands{"-F VPK-A", "-A VPK-A -s 10.0.0.2 -j DROP"};
    for (int port = 1; port <= 50; ++port)
        commands.push_back("-A VPK-A -p dccp --sport " + std::to_string(port) + " -j DROP");
    EXPECT_EQ(50U, done(commands).size());
    EXPECT_THAT(rules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
}

// Somebody who deletes one of our rules again and again is no refusal of ours.
TEST_F(ATableThatNeverRests, LosesNothingWhereSomebodyTakesAwayWhatIsToBeDeleted) {
    int left = 13;
    backend->beforeCommit = [&] {
        const auto standing = backend->truth().chains.at("VPK-A").rules;
        const std::string chain = "VPK-A";
        backend->append(chain, parsed("-A VPK-A -s 10.0.0.1 -j DROP").rule);
        if (left-- > 0) {
            EXPECT_TRUE(backend->edit({Change::Kind::deleteRule, &chain, nullptr, standing.front().handle}));
        }
    };
    EXPECT_THAT(done({"-D VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"}), IsEmpty());
    EXPECT_EQ("-s 10.0.0.2/32 -j DROP", rules("VPK-A").back());
}

} // namespace
