#include "host/rebuild-reasons.h"

#include <gtest/gtest.h>

#include "host/call-watch.h"

namespace {

using host::Verdict;

const Verdict kClean;
const Verdict kRefused{{"-A VPK-DENY -s nowhere -j DROP: host not found"}, "", {}, false, {}, {}};
const Verdict kBroken{{}, "it broke", {}, false, {}, {}};
const Verdict kLost{{}, "", {"-A VPK-DENY -j DROP"}, false, {}, {}};
const Verdict kOthersLost{{}, "", {"-A VPK-ALLOW -j ACCEPT", "-F VPK-ALLOW"}, false, {}, {}};
const Verdict kBrokenAndLost{{}, "it broke", {"-A VPK-DENY -j DROP"}, false, {}, {}};

constexpr const char *kLostText = "accepted commands were lost: -A VPK-DENY -j DROP";
constexpr const char *kOthersLostText = "accepted commands were lost: -A VPK-ALLOW -j ACCEPT and 1 more";

class AReason : public testing::Test {
protected:
    host::RebuildReasons reasons;
};

TEST_F(AReason, IsNoneInWhatWentWellOrWasRefused) {
    for (const auto &verdict : {kClean, kRefused}) {
        EXPECT_EQ(reasons.afterCall(verdict), "");
        EXPECT_EQ(reasons.afterBringUp(verdict), "");
    }
    EXPECT_EQ(reasons.lostAgain(), "");
}

TEST_F(AReason, IsAnInterruptionForAsLongAsItLasts) {
    EXPECT_EQ(reasons.afterCall(kBroken), "it broke");
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_EQ(reasons.afterBringUp(kBroken), "it broke");
        EXPECT_EQ(reasons.afterBringUp(kBrokenAndLost), "it broke");
    }
    EXPECT_EQ(reasons.afterBringUp(kClean), "");
}

TEST_F(AReason, IsALossOnce) {
    EXPECT_EQ(reasons.afterCall(kLost), kLostText);
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
    EXPECT_EQ(reasons.lostAgain(), std::string("given up: ") + kLostText);
    EXPECT_EQ(reasons.afterCall(kLost), "");
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
    EXPECT_EQ(reasons.lostAgain(), std::string("given up: ") + kLostText);
}

TEST_F(AReason, IsALossOfABringUpOnce) {
    EXPECT_EQ(reasons.afterBringUp(kLost), kLostText);
    EXPECT_EQ(reasons.lostAgain(), "");
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
}

TEST_F(AReason, IsEachLossThatIsNew) {
    EXPECT_EQ(reasons.afterCall(kLost), kLostText);
    EXPECT_EQ(reasons.afterBringUp(kOthersLost), kOthersLostText);
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
}

TEST_F(AReason, IsALossAgainAfterItWasMended) {
    EXPECT_EQ(reasons.afterCall(kLost), kLostText);
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
    EXPECT_EQ(reasons.afterBringUp(kClean), "");
    EXPECT_EQ(reasons.lostAgain(), "");
    EXPECT_EQ(reasons.afterCall(kLost), kLostText);
}

TEST_F(AReason, IsALossAgainAfterItWasMendedThoughAnotherOneStays) {
    EXPECT_EQ(reasons.afterCall(kLost), kLostText);
    EXPECT_EQ(reasons.afterCall(kOthersLost), kOthersLostText);
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
    EXPECT_EQ(reasons.afterCall(kLost), "");
    EXPECT_EQ(reasons.afterCall(kOthersLost), kOthersLostText);
}

TEST_F(AReason, IsAnInterruptionThoughALossIsGivenUp) {
    EXPECT_EQ(reasons.afterBringUp(kLost), kLostText);
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
    EXPECT_EQ(reasons.afterCall(kBrokenAndLost), "it broke");
    EXPECT_EQ(reasons.afterBringUp(kLost), "");
}

} // namespace
