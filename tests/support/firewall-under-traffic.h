// The whole system with many rules and packets flowing, its tables set up anew again and again.
#ifndef TESTS_SUPPORT_FIREWALL_UNDER_TRAFFIC_H
#define TESTS_SUPPORT_FIREWALL_UNDER_TRAFFIC_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/network.h"
#include "support/numbered-traffic.h"
#include "support/whole-system.h"

namespace undertraffic {

// The flows of the reports.
constexpr std::size_t kDenied = 0;
constexpr std::size_t kAllowed = 1;

// One re-initialisation.
struct Round {
    std::string disturbance;          // what was done to the kernel's rules, or to a stored one, before
    bool disturbed = false;           // this changed what the kernel holds
    std::uint64_t changes = 0;        // that the service says it sent to the kernel since then, 0 when it does not
    bool restored = false;            // the kernel held afterwards what it must
    std::chrono::nanoseconds time{0}; // of "vpkctl reload"
};

// Packets to one far address are denied, packets to another are allowed by a rule of their own and would be denied but
// for that. These rules stand behind all the others, which are about neither address. Everything that does not work as
// it must is thrown as std::runtime_error. At most one at a time.
class Firewall {
public:
    // Starts the programs and stores and applies so many rules, ours among them.
    explicit Firewall(std::size_t rules);

    // The flows start; they must be as the rules say before the first round.
    void beginTraffic(unsigned perSecond);
    // Disturbs the rules in one of several ways, one after the other by the number of the round, and re-initialises.
    // A foreign program changes them in one transaction, so that no packet escapes by its doing.
    Round reinitialise(std::size_t round);
    // The same for comparison: the same commands, each by a run of iptables, and nothing disturbed before.
    void reinitialiseOneByOne();
    // Has all rules but those about the two addresses replaced by others, with one vpkctl apply; by the number of the
    // round, they are others than the round before.
    void replaceRules(std::size_t round);
    traffic::Report endTraffic();

    // So many rounds do all that reinitialise() can do.
    static std::size_t kindsOfDisturbance();

private:
    friend struct Disturbances;

    void turnOneRule(std::size_t round);

    wholesystem::System system_;
    network::Pair pair_;
    std::vector<std::string> destinations_;
    std::vector<std::string> denied_; // the other rules
    std::vector<std::string> allowed_;
    std::optional<traffic::Stream> stream_;
};

} // namespace undertraffic

#endif
