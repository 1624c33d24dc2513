// The rule database cannot be read or written for a while: the rules stay in force, and the caller is told.
#include "system/system-test.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <new>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/mapped-plan.h"
#include "support/read-faults.h"

namespace {

using namespace systemtest;
using read_faults::Plan;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using wholesystem::contentOf;
using wholesystem::kHostLog;

constexpr const char *kPlanPath = "/run/read-faults";

wholesystem::System::Options withFaults() {
    const char *const old = std::getenv("ASAN_OPTIONS");
    wholesystem::System::Options options;
    options.host.environment = {"LD_PRELOAD=" NYR_BINARY_DIR "/lib/libread-faults.so",
                                std::string(read_faults::kPlanVariable) + "=" + kPlanPath,
                                "ASAN_OPTIONS=" + std::string(old != nullptr ? old : "") + ":verify_asan_link_order=0"};
    return options;
}

// The real system, whose host reads its rule database from a disk that the test lets fail.
class AFailingRead : public testing::Test {
protected:
    void SetUp() override {
        if (const auto listing = process::capture({"iptables", "-w", "-S"}); listing.status != 0)
            GTEST_SKIP() << "no packet filter to be had: " << listing.errors;
        ASSERT_NE(plan, nullptr);
        std::string(wholesystem::kRuleDatabase).copy(plan->file.data(), plan->file.size() - 1);
        plan->error = EIO;
        system = std::make_unique<wholesystem::System>(withFaults());
        ASSERT_TRUE(system->start());
        ASSERT_EQ(system->execute("ApplyAllowRules", "tcp:192.0.2.1:80:in"), 0);
        ASSERT_EQ(system->execute("ApplyDenyRules", "tcp:192.0.2.2:80:in;tcp:192.0.2.3:80:out"), 0);
    }

    // The number of reads that a reload makes.
    int readsOfReload() const {
        plan->reads = 0;
        EXPECT_EQ(system->control({"reload"}).status, 0);
        return plan->reads;
    }
    void failRead(int number) const {
        plan->reads = 0;
        plan->times = 1;
        plan->first = number;
    }
    bool hasMet() const { return plan->reads >= plan->first; }

    static bool isFull() {
        return network::rulesOf("VPK-ALLOW").size() == 1 && network::rulesOf("VPK-DENY").size() == 2;
    }
    static std::size_t storedAllowRules() {
        const auto rows = storedRules();
        return static_cast<std::size_t>(
            std::count_if(rows.begin(), rows.end(), [](const Row &row) { return row.isAllowed == 1; }));
    }
    bool isWell() const { return system->control({"status"}).status == 0; }

    Plan *const plan = mapped_plan::make<Plan>(kPlanPath);
    std::unique_ptr<wholesystem::System> system;
};

TEST_F(AFailingRead, LeavesBothChainsFullWhereverItIsInARebuild) {
    const int reads = readsOfReload();
    ASSERT_GT(reads, 3);
    bool wasTold = false;
    for (int number = 1; number <= reads; ++number) {
        failRead(number);
        const auto reload = system->control({"reload"});
        EXPECT_TRUE(hasMet()) << number;
        EXPECT_TRUE(isFull()) << number << ": " << reload.errors;
        EXPECT_TRUE(process::waitUntil([this] { return isWell(); })) << number << ": " << reload.errors;
        EXPECT_TRUE(isFull()) << number;
        EXPECT_THAT(storedRules(), SizeIs(3));
        wasTold = wasTold || reload.errors.find("the tables are built anew from the stored rules") != std::string::npos;
    }
    EXPECT_TRUE(wasTold) << "there is at least one read in the middle";
    EXPECT_THAT(contentOf(wholesystem::kServiceLog),
                HasSubstr(" is interrupted: the operation was left by an exception\n"));
}

TEST_F(AFailingRead, LetsTheFirewallComeUpWhereverItIsInAStart) {
    ASSERT_EQ(system->stopHost(), 0);
    plan->reads = 0;
    ASSERT_TRUE(system->startHost());
    const int reads = plan->reads;
    for (int number = 1; number <= reads; ++number) {
        ASSERT_EQ(system->stopHost(), 0);
        failRead(number);
        ASSERT_TRUE(system->startHost()) << number;
        EXPECT_TRUE(process::waitUntil([this] { return hasMet(); })) << number << ": the history begins to read later";
        EXPECT_TRUE(isFull()) << number;
        EXPECT_TRUE(process::waitUntil([this] { return isWell(); })) << number;
        EXPECT_TRUE(isFull()) << number;
        EXPECT_THAT(storedRules(), SizeIs(3));
    }
}

TEST_F(AFailingRead, KeepsNoHostFromStartingWhereTheFileCannotEvenBeOpened) {
    for (const int error : {ENFILE, EMFILE, ENOMEM, EIO}) {
        ASSERT_EQ(system->stopHost(), 0);
        plan->error = error;
        plan->opens = 1'000'000;
        ASSERT_TRUE(system->startHost()) << error;
        EXPECT_FALSE(isWell()) << error;
        plan->opens = 0;
        EXPECT_TRUE(process::waitUntil([this] { return isWell(); })) << error;
        EXPECT_TRUE(isFull()) << error;
        EXPECT_THAT(storedRules(), SizeIs(3));
    }
}

// An opposite rule is stored, and then the chains are filled from what is read.
TEST_F(AFailingRead, OfAnOppositeRuleIsMendedWithTheNewRule) {
    int told = 0;
    for (int number = 1;; ++number) {
        ASSERT_LT(number, 200);
        const char *const command = number % 2 == 1 ? "ApplyDenyRules" : "ApplyAllowRules";
        failRead(number);
        const auto applied = system->control({"exec", command, "tcp:192.0.2.1:80:in"});
        if (!hasMet())
            break;
        EXPECT_TRUE(process::waitUntil([this] { return isWell(); })) << number;
        const auto allowed = storedAllowRules();
        EXPECT_EQ(network::rulesOf("VPK-ALLOW").size(), allowed) << number;
        EXPECT_EQ(network::rulesOf("VPK-DENY").size(), 3 - allowed) << number;
        const bool isNew = allowed == (number % 2 == 1 ? 0U : 1U);
        EXPECT_TRUE(isNew || applied.status != 0) << number;
        told += applied.status != 0 ? 1 : 0;
        if (!isNew) {
            ASSERT_EQ(system->execute(command, "tcp:192.0.2.1:80:in"), 0) << number;
        }
    }
    EXPECT_GT(told, 0);
}

// ---- a full disk ----

class AFullDisk : public SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(process::capture({"mkdir", "-p", "-m", "0700", "/opt/data/vpk/db"}).status, 0);
        ASSERT_EQ(::chmod("/opt/data/vpk", 0700), 0);
        ASSERT_EQ(::mount("tmpfs", "/opt/data/vpk/db", "tmpfs", 0, "size=1m,mode=0700"), 0);
        ASSERT_TRUE(system.start());
        allow("tcp:192.0.2.1:80:in");
        deny("tcp:192.0.2.2:80:in");
    }
    // A journal that lies there already needs no more space.
    static void fill() {
        ::unlink("/opt/data/vpk/db/.firewall.db-journal");
        std::ofstream file(kFiller, std::ios::binary);
        const std::string block(1024, 'x');
        while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
        }
    }

    static constexpr const char *kFiller = "/opt/data/vpk/db/filler";
};

TEST_F(AFullDisk, KeepsFlushedRulesInTheDatabaseAndInForceAndTellsTheCaller) {
    fill();
    const auto flushed = system.control({"exec", "FlushDenyRules"});
    EXPECT_EQ(flushed.status, 1);
    EXPECT_THAT(flushed.errors,
                AllOf(HasSubstr("-F VPK-DENY: iptables: not sent: a database failed during the operation"),
                      HasSubstr("\na database failed during the operation; the tables are built "
                                "anew from the stored rules")));
    EXPECT_THAT(network::rulesOf("VPK-DENY"), SizeIs(1));
    EXPECT_THAT(storedRules(), SizeIs(2));
    EXPECT_TRUE(
        process::waitUntil([] { return contentOf(kHostLog).find("the tables were built anew") != std::string::npos; }));
    EXPECT_THAT(network::rulesOf("VPK-DENY"), SizeIs(1));
    EXPECT_EQ(system.control({"status"}).status, 0);

    ASSERT_EQ(::unlink(kFiller), 0);
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
    EXPECT_THAT(network::rulesOf("VPK-DENY"), IsEmpty());
    EXPECT_THAT(storedRules(), SizeIs(1));
}

TEST_F(AFullDisk, TakesARuleOutOfForceThatCouldNotBeStored) {
    fill();
    const auto denied = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.3:80:in"});
    EXPECT_EQ(denied.status, 1);
    EXPECT_THAT(denied.errors, HasSubstr("the tables are built anew from the stored rules"));
    EXPECT_TRUE(process::waitUntil([] { return network::rulesOf("VPK-DENY").size() == 1; }));
    EXPECT_THAT(storedRules(), SizeIs(2));
}

} // namespace
