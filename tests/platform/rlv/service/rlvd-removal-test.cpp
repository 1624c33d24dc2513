// Hooks and chains are taken out by the service, over a table that fails.
#include "rlvd-embedded.h"
#include "rlvd-process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using namespace rlvd;

class ARemoval : public testing::Test {
protected:
    ARemoval() : service(simulated()) {
        Client client;
        for (const char *options : {"-N VPK-DENY", "-A VPK-DENY -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-DENY"})
            EXPECT_EQ("0: ", client.commit(options));
        EXPECT_EQ(0, client.close());
    }

    static rlv::ServiceOptions simulated() {
        rlv::ServiceOptions options;
        options.simulated = true;
        return options;
    }
    static process::Result removed() { return ended({"--remove-tables", "--simulate"}); }
    static void expectAllStands() {
        EXPECT_EQ(1U, rulesOf("VPK-DENY"));
        EXPECT_EQ(1U, rlv::query(0).hooks.size());
    }

    EmbeddedService service;
};

TEST_F(ARemoval, TakesAllOut) {
    const auto result = removed();
    EXPECT_EQ(0, result.status) << result.errors;
    EXPECT_TRUE(rlv::query(0).hooks.empty());
    EXPECT_TRUE(rlv::query(0).chains.empty());
}

// Others may have put something back as soon as the kernel had taken it out.
TEST_F(ARemoval, HasFailedWhereNobodyCanTellWhatIsLeft) {
    set(Fault::describeFails);
    const auto result = removed();
    set(Fault::describeFails, false);
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.errors, HasSubstr("rlvd: not all is out: the tables cannot be read: netlink: "));
    expectAllStands();
}

TEST_F(ARemoval, SaysWhyItFailedAlsoWhereItsCommandsCannotBeDiscarded) {
    set(Fault::removalFails);
    set(Fault::discardFails);
    const auto result = removed();
    set(Fault::removalFails, false);
    set(Fault::discardFails, false);
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.errors, HasSubstr("rlvd: netlink: No buffer space available"));
    EXPECT_THAT(service.log(), HasSubstr("what was to be taken out cannot be discarded: netlink: "));
    expectAllStands();
}

} // namespace
