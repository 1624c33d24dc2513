// The engine over a rule database that gives back targets which the real one cannot hold.
#include "firewall.h"

#include <gmock/gmock.h>

#include "support/fake-rlv.h"

namespace {

std::vector<FirewallRule> stored;
std::vector<int> counts;

} // namespace

FirewallStorage::FirewallStorage() : offset(0) {}

int FirewallStorage::getNextRulesByCount(std::vector<std::shared_ptr<FirewallRule>> &rules, int count) {
    counts.push_back(count);
    for (const FirewallRule &rule : stored)
        rules.push_back(std::make_shared<FirewallRule>(rule));
    const int read = static_cast<int>(stored.size());
    stored.clear();
    return read;
}

void FirewallStorage::saveRule(const FirewallRule & /*rule*/) {}
void FirewallStorage::flushDenyRules() {}
void FirewallStorage::flushAllowRules() {}
bool FirewallStorage::ifOppositeRuleExists(const FirewallRule & /*rule*/) { return false; }

namespace {

TEST(AStoredRule, WithATargetThatIsNeitherAcceptNorDropIsNeverReapplied) {
    for (const char *target : {"ACCEPT", "REJECT", "", "accept", "drop", "VPK-LOGANDDROP", "DROP"})
        stored.emplace_back("tcp:a:1:in", target);
    Firewall firewall;
    firewall.ReapplyRules();
    EXPECT_THAT(fakerlv::commands(),
                testing::ElementsAre("-F VPK-ALLOW", "-F VPK-DENY", "-A VPK-ALLOW -p tcp -s a --sport 1 -j ACCEPT",
                                     "-A VPK-DENY -p tcp -s a --sport 1 -j VPK-LOGANDDROP"));
    EXPECT_THAT(counts, testing::ElementsAre(1000, 1000));
}

} // namespace
