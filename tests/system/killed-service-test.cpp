// The service dies at every stage of an operation: what was stored comes into force without being asked for.
#include <filesystem>
#include <optional>
#include <ostream>
#include <set>

#include "system/service-relay.h"
#include "system/system-test.h"

namespace {

using network::rulesOf;
using systemtest::Lines;
using systemtest::ServiceRelay;
using testing::HasSubstr;
using testing::UnorderedElementsAreArray;

constexpr const char *kServiceBehind = "/run/service-behind";

struct Operation {
    const char *name;
    std::vector<std::string> words; // of vpkctl
    unsigned packetsOfTheLook = 0;  // with which the host looks at everything afterwards
};

std::ostream &operator<<(std::ostream &stream, const Operation &operation) { return stream << operation.name; }

// What the stored rules make.
Lines expected(bool allowed) {
    const std::string target = allowed ? "ACCEPT" : "VPK-LOGANDDROP";
    Lines lines;
    for (const auto &row : systemtest::storedRules()) {
        for (const bool inbound : {true, false}) {
            const bool covered = row.direction == 0 || row.direction == (inbound ? 1 : 2);
            if (covered && (row.isAllowed != 0) == allowed)
                lines.push_back(firewall_oracle::kernelRule(row, inbound, target).value());
        }
    }
    return lines;
}

// The whole system with the relay between host and service.
class WithARelay : public systemtest::SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        if (IsSkipped())
            return;
        std::filesystem::create_directories(std::filesystem::path(wholesystem::kServiceSocket).parent_path());
        startService();
        relay_.emplace(wholesystem::kServiceSocket, kServiceBehind);
        ASSERT_TRUE(system.startHost());
    }

    void startService() {
        service_.reset();
        watchesBefore_ = relay_ ? relay_->watches() : 0;
        service_.emplace(std::vector<std::string>{process::built("rlvd"), "--socket", kServiceBehind, "--no-resolve",
                                                  "--log-file", wholesystem::kServiceLog});
        ASSERT_TRUE(service_->waitReady([] { return ServiceRelay::serves(kServiceBehind); })) << service_->errors();
    }

    // The host has seen that the service is another one, and what that orders is done. To look changes nothing.
    bool becomesWhole() {
        return process::waitUntil([this] { return relay_->watches() > watchesBefore_; }) &&
               process::waitUntil([this] { return system.control({"status"}).status == 0; });
    }

    std::optional<process::Child> service_;
    std::optional<ServiceRelay> relay_;
    unsigned watchesBefore_ = 0; // the service was started
};

void expectKernelAndDatabaseToAgree() {
    EXPECT_THAT(rulesOf("VPK-ALLOW"), UnorderedElementsAreArray(expected(true)));
    EXPECT_THAT(rulesOf("VPK-DENY"), UnorderedElementsAreArray(expected(false)));
    EXPECT_EQ(rulesOf("VPK-LOGANDDROP"), systemtest::kLogAndDrop);
    EXPECT_EQ(rulesOf("INPUT"), systemtest::kHooks);
    EXPECT_EQ(rulesOf("OUTPUT"), systemtest::kHooks);
}

class AnInterruptedOperation : public WithARelay, public testing::WithParamInterface<Operation> {
protected:
    // The same rules before each attempt.
    void prepare() {
        EXPECT_EQ(system.execute("FlushAllowRules"), 0);
        EXPECT_EQ(system.execute("FlushDenyRules"), 0);
        allow("tcp:192.0.2.1:80:in");
        deny("tcp:192.0.2.2:80:in;udp:192.0.2.3:53;tcp:192.0.2.4:1-9:out");
    }

    unsigned packetsOfTheOperation() {
        prepare();
        const unsigned before = relay_->packets();
        EXPECT_EQ(system.control(GetParam().words).status, 0);
        return relay_->packets() - before;
    }

    void interruptAt(unsigned packet, unsigned packets) {
        prepare();
        relay_->killInPlaceOf(packet, service_->id());
        const auto result = system.control(GetParam().words);
        EXPECT_FALSE(relay_->armed());
        EXPECT_NE(result.status, 0);
        // Without a connection nothing was changed, neither here nor there; after it all was.
        const bool isBroken = packet > 1 && packet <= packets - GetParam().packetsOfTheLook;
        EXPECT_EQ(result.errors.find("; the tables are built anew from the stored rules") != std::string::npos,
                  isBroken)
            << result.errors;
        EXPECT_THAT(result.errors, testing::AnyOf(HasSubstr("built anew"), HasSubstr("not known: ")));
    }
};

TEST_P(AnInterruptedOperation, IsMadeGoodAtEveryStage) {
    const unsigned packets = packetsOfTheOperation();
    ASSERT_GE(packets, 3U); // an opening, a command and a closing at the least
    for (const unsigned packet : std::set<unsigned>{1, 2, 3, packets / 2, packets - 1, packets}) {
        SCOPED_TRACE("killed in place of packet " + std::to_string(packet) + " of " + std::to_string(packets));
        interruptAt(packet, packets);
        startService();
        ASSERT_TRUE(becomesWhole()) << system.control({"status"}).output;
        expectKernelAndDatabaseToAgree();
        deny("tcp:192.0.2.99:80:in");
        expectKernelAndDatabaseToAgree();
    }
}

TEST_F(WithARelay, AnInterruptedStartIsMadeGood) {
    deny("tcp:192.0.2.2:80:in;udp:192.0.2.3:53");
    const unsigned before = relay_->packets();
    ASSERT_TRUE(system.restartHost());
    ASSERT_EQ(system.stopHost(), 0);
    relay_->killInPlaceOf(relay_->packets() - before, service_->id()); // where the host asks what became of it all
    network::iptables({"-F", "VPK-DENY"});
    ASSERT_TRUE(system.startHost());
    EXPECT_FALSE(relay_->armed());
    EXPECT_EQ(system.control({"status"}).status, 1);
    startService();
    EXPECT_TRUE(becomesWhole());
    expectKernelAndDatabaseToAgree();
}

INSTANTIATE_TEST_SUITE_P(
    OfTheHost, AnInterruptedOperation,
    testing::Values(Operation{"Deny", {"exec", "ApplyDenyRules", "tcp:192.0.2.5:80:in;udp:192.0.2.6:53"}},
                    Operation{"TurnIntoTheOpposite", {"exec", "ApplyAllowRules", "tcp:192.0.2.2:80:in"}},
                    Operation{"Flush", {"exec", "FlushDenyRules"}, 2}, Operation{"Reload", {"reload"}, 2},
                    Operation{"RemoteMethod", {"call", "Firewall::ApplyDenyRules", "tcp:192.0.2.7:80"}}),
    [](const auto &test) { return std::string(test.param.name); });

} // namespace
