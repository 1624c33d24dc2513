// Connections, one after another, and who looks between and during them.
#include "rlv/table/transactional-table.h"

#include <string>

#include "transactional-table-fixture.h"

namespace {

using namespace scripted;

TEST_F(ATransactionalTable, DiscardsEverythingThatWasNotSent) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    table->open();
    accepted({"-N VPK-B", "-F VPK-A", "-A VPK-A -j VPK-B"});
    EXPECT_EQ(0, applyToHosts("-A VPK-B -s ", {"10.0.0.1", "10.0.0.2"}, " -j DROP").code);
    EXPECT_THAT(namesOf(table->discard()),
                ElementsAre("-N VPK-B" + kUnsent, "-F VPK-A" + kUnsent, "-A VPK-A -j VPK-B" + kUnsent,
                            "-A VPK-B -s name -j DROP" + kUnsent));
    EXPECT_EQ(0U, table->push().changes);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(ATransactionalTable, DescribesTheKernelWhileAConnectionHasChanges) {
    done({"-N VPK-A"});
    table->open();
    accepted({"-N VPK-B", "-A VPK-A -j DROP", "-A INPUT -j VPK-A"});
    foreignAppend("VPK-A", "-s 10.0.0.1 -j DROP");
    rlv::ServiceState state;
    for (int i = 0; i < 2; ++i) {
        table->describe(state);
        ASSERT_EQ(1U, state.chains.size());
        EXPECT_EQ(1U, state.chains[0].rules);
        EXPECT_THAT(state.hooks, IsEmpty());
    }
    table->push();
    table->describe(state);
    EXPECT_EQ(2U, state.chains.size());
    EXPECT_EQ(2U, state.chains[0].rules);
}

TEST_F(ATransactionalTable, BeginsAConnectionWithNothingOfTheOneBefore) {
    done({"-N VPK-A"});
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j DROP"});
    done({"-N VPK-B"});
    EXPECT_THAT(plainRules("VPK-A"), IsEmpty());
}

} // namespace
