// What is known to stand, and that nothing is known where there was no memory to keep it.
#include "rlv/table/tracked-ruleset.h"

#include <limits>
#include <new>
#include <string>

#include "support/failing-allocations.h"
#include "transactional-table-fixture.h"

namespace {

using namespace scripted;
using failing_allocations::Shortage;

TEST_F(ATransactionalTable, ReadsOnlyWhatSomebodyElseChanged) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    const auto before = backend->readings;
    done({"-A VPK-A -j ACCEPT"});
    done({"-D VPK-A -j DROP"});
    EXPECT_EQ(before, backend->readings);
    foreignAppend("VPK-A", "-j DROP");
    done({"-D VPK-A -j DROP"});
    EXPECT_EQ(before + 1, backend->readings);
}

TEST_F(ATransactionalTable, OutlivesTheEndOfTheGenerationsNumbers) {
    backend->generationShift = std::numeric_limits<std::uint32_t>::max() - 2;
    done({"-N VPK-A"});
    const auto readings = backend->readings;
    for (int i = 0; i < 6; ++i)
        done({"-A VPK-A -j DROP"});
    EXPECT_EQ(readings, backend->readings);
    EXPECT_EQ(6U, rules("VPK-A").size());
}

// Wherever the memory runs out, the next connection meets the table as the kernel has it.
TEST_F(ATransactionalTable, TakesNothingForTheKernelsForWantOfMemory) {
    const std::string one("-A VPK-A -s 10.0.0.1 -j DROP");
    const std::string other("-A VPK-A -s 10.0.0.2 -j DROP");
    done({"-N VPK-A", "-N VPK-B", "-A INPUT -j VPK-A", one});
    int sentAllTheSame = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        done({"-F VPK-A", one});
        table->open();
        accepted({other, "-A VPK-B -s 10.0.0.3 -j DROP"});
        {
            const Shortage shortage(spared);
            try {
                table->push();
                sentAllTheSame += Shortage::failed() > 0 ? 1 : 0;
            } catch (const std::bad_alloc &) {
            }
            failed = Shortage::failed();
        }
        table->discard();
        ASSERT_NO_FATAL_FAILURE(done({"-F VPK-A", "-F VPK-B", other}));
        ASSERT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
        ASSERT_THAT(plainRules("VPK-B"), IsEmpty());
    }
    EXPECT_LT(0, sentAllTheSame);
}

// Others change the chain in the middle of a connection, and there is no memory to bring its commands to what they
// left: who looks swallows that, and the connection must not end as if nothing were missing.
TEST_F(ATransactionalTable, TellsTheConnectionOfWhatALookInTheMiddleLostForWantOfMemory) {
    const std::string one("-A VPK-A -s 10.0.0.1 -j DROP");
    int lost = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        table->forget();
        foreignForget();
        done({"-N VPK-A", "-A INPUT -j VPK-A", one});
        table->remember();
        table->open();
        accepted({"-F VPK-A"});
        foreignAppend("VPK-A", "-s 10.0.0.9 -j DROP");
        {
            const Shortage shortage(spared);
            try {
                static_cast<void>(table->mend());
            } catch (const std::bad_alloc &) {
            }
            failed = Shortage::failed();
        }
        const std::string other("-A VPK-A -s 10.0.0.2 -j DROP");
        try {
            accepted({other});
            EXPECT_THAT(table->push().lost, IsEmpty());
            EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
        } catch (const std::bad_alloc &) {
            ++lost;
            EXPECT_THROW(static_cast<void>(table->push()), std::bad_alloc);
            EXPECT_LT(0U, table->discard().lostBeyondList);
            EXPECT_EQ("", table->mend().problem);
            EXPECT_THAT(plainRules("VPK-A"), testing::Contains("-s 10.0.0.1/32 -j DROP"));
            ASSERT_NO_FATAL_FAILURE(done({"-F VPK-A", other}));
        }
    }
    EXPECT_LT(0, lost);
}

TEST_F(ATransactionalTable, DoesNotTakeWhatItHasLostForWhatShouldStand) {
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    int lost = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        table->forget();
        table->open();
        accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
        bool isSent = true;
        {
            const Shortage shortage(spared);
            try {
                table->push();
            } catch (const std::bad_alloc &) {
                isSent = false;
            }
            failed = Shortage::failed();
        }
        table->discard();
        if (!isSent)
            continue;
        table->remember();
        lost += table->remembers() ? 0 : 1;
        foreignRemoveRules("VPK-A");
        static_cast<void>(table->mend());
        if (table->remembers()) {
            EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.1/32 -j DROP"));
        }
    }
    EXPECT_LT(0, lost);
}

} // namespace
