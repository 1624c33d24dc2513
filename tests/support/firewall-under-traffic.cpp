#include "support/firewall-under-traffic.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "support/process.h"

namespace undertraffic {
namespace {

using Rules = std::vector<std::string>;

constexpr const char *kAllow = "VPK-ALLOW";
constexpr const char *kDeny = "VPK-DENY";
constexpr std::size_t kMeasuredRules = 3;
constexpr process::Duration kLogged{1'000}; // until the service must have logged what it sent
const std::string kNeighbour = "192.0.2.9";

void require(bool holds, const std::string &what) {
    if (!holds)
        throw std::runtime_error(what);
}

std::vector<std::string> words(const std::string &text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string joined(const Rules &rules, const std::string &separator) {
    std::string text;
    for (const auto &rule : rules)
        text += rule + separator;
    return text;
}

Rules fillers(std::size_t count, const std::string &network) {
    Rules rules;
    for (std::size_t i = 0; i < count; ++i)
        rules.push_back("udp:" + network + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) + ":4711:out");
    return rules;
}

// The measured rules are not about such addresses.
bool isFiller(const std::string &kernelRule) { return kernelRule.find("-d 10.") != std::string::npos; }

Rules withoutFillers(Rules rules) {
    rules.erase(std::remove_if(rules.begin(), rules.end(), isFiller), rules.end());
    return rules;
}

Rules withHalfTheFillers(const Rules &rules) {
    Rules kept;
    bool odd = false;
    std::copy_if(rules.begin(), rules.end(), std::back_inserter(kept),
                 [&odd](const std::string &rule) { return !isFiller(rule) || (odd = !odd); });
    return kept;
}

Rules shuffled(Rules rules, std::size_t seed) {
    std::shuffle(rules.begin(), rules.end(), std::mt19937(static_cast<unsigned>(seed)));
    return rules;
}

Rules withStrangers(const Rules &rules) {
    Rules result;
    for (const auto &rule : rules) {
        if (result.size() % 10 == 0)
            result.push_back("-d 10.200.0.1/32 -p udp -m udp --dport 9 -j ACCEPT");
        result.push_back(rule);
    }
    return result;
}

// In one transaction.
void replaceRules(const std::string &chain, const Rules &rules) {
    process::Options options;
    options.input = "*filter\n-F " + chain + "\n";
    for (const auto &rule : rules)
        options.input.append("-A ").append(chain).append(" ").append(rule).append("\n");
    options.input += "COMMIT\n";
    const auto result = process::capture({"iptables-restore", "--noflush"}, options);
    require(result.status == 0, "iptables-restore: " + result.errors);
}

template <typename Change> void changeRules(std::initializer_list<const char *> chains, const Change &change) {
    for (const char *chain : chains)
        replaceRules(chain, change(network::rulesOf(chain)));
}

// What the service says it sent, in its log from `offset` on.
std::uint64_t changesSent(std::streamoff offset) {
    static const std::regex sent(R"(connection \d+: sent (\d+) changes? \()");
    std::ifstream log(wholesystem::kServiceLog);
    log.seekg(offset);
    std::uint64_t changes = 0;
    std::smatch match;
    for (std::string line; std::getline(log, line);) {
        if (line.find(": sent ") != std::string::npos && std::regex_search(line, match, sent))
            changes += std::stoull(match[1]);
    }
    return changes;
}

std::streamoff sizeOfServiceLog() { return std::ifstream(wholesystem::kServiceLog, std::ios::ate).tellg(); }

// What is measured is the re-initialisation alone: nobody puts back before it what was disturbed.
wholesystem::System::Options withoutRepair() {
    wholesystem::System::Options options;
    options.serviceArguments = {"--no-repair"};
    return options;
}

} // namespace

// The ways to disturb.
struct Disturbances {
    enum class Afterwards { asBefore, asDisturbed };
    struct Kind {
        const char *name;
        void (*disturb)(Firewall &firewall, std::size_t round);
        Afterwards afterwards = Afterwards::asBefore; // what a re-initialisation leaves
        void (*tidyUp)() = [] {};                     // after it, before a look at the rules
    };
    static const std::vector<Kind> kinds;
};

const std::vector<Disturbances::Kind> Disturbances::kinds{
    {"the deny rules were emptied", [](Firewall &, std::size_t) { changeRules({kDeny}, withoutFillers); }},
    {"the allow rules were emptied", [](Firewall &, std::size_t) { changeRules({kAllow}, withoutFillers); }},
    {"both were emptied",
     [](Firewall &, std::size_t) {
         changeRules({kAllow, kDeny}, withoutFillers);
     }},
    {"both were put into another order",
     [](Firewall &, std::size_t round) {
         changeRules({kAllow, kDeny}, [round](const Rules &rules) { return shuffled(rules, round); });
     }},
    {"a rule was turned into its opposite", [](Firewall &firewall, std::size_t round) { firewall.turnOneRule(round); },
     Afterwards::asDisturbed},
    {"every second rule was removed",
     [](Firewall &, std::size_t) {
         changeRules({kAllow, kDeny}, withHalfTheFillers);
     }},
    {"strange rules were put among them",
     [](Firewall &, std::size_t) {
         changeRules({kAllow, kDeny}, withStrangers);
     }},
    {"the hooks in INPUT were removed",
     [](Firewall &, std::size_t) {
         network::iptables({"-D", "INPUT", "-j", kAllow});
         network::iptables({"-D", "INPUT", "-j", kDeny});
     }},
    {"a neighbour put a rule behind the hooks in OUTPUT",
     [](Firewall &, std::size_t) {
         network::iptables({"-A", "OUTPUT", "-s", kNeighbour, "-j", "ACCEPT"});
     },
     Afterwards::asBefore,
     [] {
         network::iptables({"-D", "OUTPUT", "-s", kNeighbour, "-j", "ACCEPT"});
     }},
};

std::size_t Firewall::kindsOfDisturbance() { return Disturbances::kinds.size(); }

Firewall::Firewall(std::size_t rules)
    : system_(withoutRepair()), destinations_{pair_.addFarAddress(), pair_.addFarAddress()},
      denied_(fillers((rules - kMeasuredRules) / 2, "10.1.")),
      allowed_(fillers(rules - kMeasuredRules - denied_.size(), "10.2.")) {
    require(rules >= kMeasuredRules, "too few rules");
    traffic::reachOnce(pair_, destinations_);
    require(system_.start(), "the programs do not start");
    const std::string measured = "udp:" + destinations_[kAllowed];
    const std::string allow = joined(allowed_, ";") + measured + ":4711:out";
    const std::string deny = joined(denied_, ";") + "udp:" + destinations_[kDenied] + ":*:out;" + measured + ":*:out";
    require(system_.execute("ApplyAllowRules", allow) == 0, "the allow rules cannot be applied");
    require(system_.execute("ApplyDenyRules", deny) == 0, "the deny rules cannot be applied");
    require(network::rulesOf(kAllow).size() + network::rulesOf(kDeny).size() == rules, "the kernel lacks rules");
}

void Firewall::beginTraffic(unsigned perSecond) {
    stream_.emplace(pair_, destinations_, perSecond);
    stream_->waitForArrival(kAllowed);
}

traffic::Report Firewall::endTraffic() {
    traffic::Report report = stream_->finish();
    stream_.reset();
    return report;
}

void Firewall::turnOneRule(std::size_t round) {
    const std::string &rule = denied_.at(round % denied_.size());
    require(system_.execute("ApplyAllowRules", rule) == 0, rule + " cannot be turned");
}

namespace {

// What "iptables -S" shows, whichever way our chains lie: rules of sub-chains as those of their chain, sorted, since
// all of them do the same, and no branches.
std::vector<std::string> rulesWhereverTheyStand() {
    std::vector<std::string> lines;
    std::vector<std::string> ours;
    for (const std::string &line : network::listRules()) {
        const bool isOurs =
            line.rfind("-A " + std::string(kAllow), 0) == 0 || line.rfind("-A " + std::string(kDeny), 0) == 0;
        const bool isSubChain = line.rfind("-N ", 0) == 0 && line.find('.') != std::string::npos;
        if (!isOurs && !isSubChain)
            lines.push_back(line);
    }
    for (const char *const chain : {kAllow, kDeny}) {
        for (const std::string &rule : network::rulesOf(chain))
            ours.push_back(std::string(chain) + " " + rule);
    }
    std::sort(ours.begin(), ours.end());
    lines.insert(lines.end(), ours.begin(), ours.end());
    return lines;
}

} // namespace

Round Firewall::reinitialise(std::size_t number) {
    const auto &kind = Disturbances::kinds[number % Disturbances::kinds.size()];
    Round round;
    round.disturbance = kind.name;
    const std::streamoff logged = sizeOfServiceLog();
    const auto listed = network::listRules();
    const auto before = rulesWhereverTheyStand();
    stream_->mark("round " + std::to_string(number) + ": before " + kind.name);
    kind.disturb(*this, number);
    const auto disturbed = rulesWhereverTheyStand();
    round.disturbed = network::listRules() != listed;

    stream_->mark("round " + std::to_string(number) + ": " + kind.name);
    const auto begin = traffic::Clock::now();
    const auto result = system_.control({"reload"});
    round.time = traffic::Clock::now() - begin;
    stream_->mark("round " + std::to_string(number) + ": re-initialised");
    require(result.status == 0, "vpkctl reload: " + result.errors);

    process::waitUntil([&] { return (round.changes = changesSent(logged)) > 0; }, kLogged);
    kind.tidyUp();
    round.restored =
        rulesWhereverTheyStand() == (kind.afterwards == Disturbances::Afterwards::asBefore ? before : disturbed);
    return round;
}

void Firewall::replaceRules(std::size_t round) {
    const std::string other = "10." + std::to_string(round % 2 == 0 ? 3 : 5) + ".";
    const std::string measured = "udp:" + destinations_[kAllowed];
    std::string list;
    for (const auto &rule : fillers(allowed_.size(), other))
        list += "allow " + rule + "\n";
    list +=
        "allow " + measured + ":4711:out\ndeny udp:" + destinations_[kDenied] + ":*:out\ndeny " + measured + ":*:out\n";
    for (const auto &rule : fillers(denied_.size(), "10." + std::to_string(round % 2 == 0 ? 4 : 6) + "."))
        list += "deny " + rule + "\n";
    stream_->mark("round " + std::to_string(round) + ": the rules are replaced");
    const auto result = system_.control({"apply", "-"}, list);
    stream_->mark("round " + std::to_string(round) + ": the rules were replaced");
    const std::string others = std::to_string(allowed_.size() + denied_.size());
    require(result.status == 0 && result.output == "+" + others + " −" + others + ", 3 kept\n",
            "vpkctl apply: " + result.output + result.errors);
}

void Firewall::reinitialiseOneByOne() {
    std::vector<std::string> commands{"-F VPK-ALLOW", "-F VPK-DENY"};
    for (const char *action : {"-D", "-A"}) {
        for (const char *hook :
             {"INPUT -j VPK-ALLOW", "OUTPUT -j VPK-ALLOW", "INPUT -j VPK-DENY", "OUTPUT -j VPK-DENY"})
            commands.push_back(std::string(action) + " " + hook);
    }
    commands.insert(commands.end(), {"-F VPK-LOGANDDROP", "-A VPK-LOGANDDROP -j LOG --log-prefix IPTables-Dropped:",
                                     "-A VPK-LOGANDDROP -j DROP"});
    for (const char *chain : {kAllow, kDeny}) {
        for (const auto &rule : network::rulesOf(chain))
            commands.push_back(std::string("-A ") + chain + " " + rule);
    }
    stream_->mark("one by one");
    for (const auto &command : commands)
        network::iptables(words(command));
}

} // namespace undertraffic
