// The service's own chains are taken away.
#include "rlv/table/own-chains.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "transactional-table-fixture.h"

namespace {

using namespace scripted;

class OwnChains : public ATransactionalTable {
protected:
    void SetUp() override {
        done({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-B", "-A VPK-B -j DROP", "-A INPUT -j VPK-A",
              "-A OUTPUT -j VPK-A", "-A OUTPUT -j VPK-B"});
        pending.load(backend->truth());
    }
    Texts lost() {
        std::vector<rlv::LostCommand> all;
        pending.discard({}, all);
        Texts texts;
        for (const auto &one : all)
            texts.push_back(one.options);
        return texts;
    }

    rlv::PendingRuleset pending{100};
};

TEST_F(OwnChains, GoWithTheirHooksFirst) {
    EXPECT_THAT(rlv::removeOwnChains(pending, "VPK-"), IsEmpty());
    EXPECT_THAT(lost(), ElementsAre("-D INPUT -j VPK-A", "-D OUTPUT -j VPK-A", "-D OUTPUT -j VPK-B", "-F VPK-A",
                                    "-F VPK-B", "-X VPK-A", "-X VPK-B"));
}

TEST_F(OwnChains, StayEmptiedWhereRulesOfOthersJumpToThem) {
    ASSERT_TRUE(backend->make("OTHER"));
    rlv::Rule jump;
    jump.target = {rlv::Target::Kind::jump, "VPK-B"};
    ASSERT_TRUE(backend->append("OTHER", jump));
    pending.load(backend->truth());
    EXPECT_THAT(rlv::removeOwnChains(pending, "VPK-"), ElementsAre("VPK-B"));
    EXPECT_THAT(lost(), testing::Contains("-F VPK-B"));
}

TEST_F(OwnChains, AreThoseThatCommandsCanNameAndWhatTheyHaveLeftBehind) {
    ASSERT_TRUE(backend->make("VPK-A/b"));
    rlv::Ruleset ruleset = backend->truth();
    for (const bool isLeftBehind : {false, true}) {
        ruleset.chains.at("VPK-A/b").isLeftBehind = isLeftBehind;
        pending.load(ruleset);
        EXPECT_THAT(rlv::removeOwnChains(pending, "VPK-"), IsEmpty());
        const Texts removed = lost();
        EXPECT_EQ(std::count(removed.begin(), removed.end(), "-X VPK-A/b"), isLeftBehind ? 1 : 0);
    }
}

TEST_F(OwnChains, AreThoseOfOurPrefixAlone) {
    EXPECT_THAT(rlv::removeOwnChains(pending, "VPK-B"), ElementsAre("VPK-B")) << "VPK-A jumps there";
    EXPECT_THAT(lost(), ElementsAre("-D OUTPUT -j VPK-B", "-F VPK-B"));
}

} // namespace
