// reinitialise-under-traffic [ROUNDS [RULES]]
//   Denied and allowed packets flow while the tables are set up anew: first once by one run of iptables for each
//   command, for comparison, then ROUNDS times (100) with RULES rules (1,000) by the policy host, each time after a
//   foreign program or an operation has changed rules. Exits with 0 only when no denied packet got through and no
//   allowed one was lost, and each round sent a transaction.
// reinitialise-under-traffic reload SETUP RELOAD [ROUNDS]
//   The same packets while another firewall reloads: SETUP and RELOAD are for the shell, with the two addresses in
//   $DENIED and $ALLOWED. Exits with 0 when all was measured.
//
// The last line has the result. All of it happens in private namespaces. Packets go to each address at 1,250 a second.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/firewall-under-traffic.h"
#include "support/process.h"
#include "support/sandbox.h"

namespace {

using undertraffic::kAllowed;
using undertraffic::kDenied;
using Words = std::vector<std::string>;

constexpr unsigned kPerSecond = 1'250;
constexpr double kLeastPerSecond = 1'000;
constexpr process::Duration kReloadTime{120'000};

// True when the report is about the firewall alone: enough packets, and none that had no room.
bool isSound(const traffic::Report &report) {
    return report.overflowed == 0 && report.flows[kDenied].perSecond() >= kLeastPerSecond &&
           report.flows[kAllowed].perSecond() >= kLeastPerSecond;
}

void print(const std::string &what, const traffic::Report &report) {
    const auto &denied = report.flows[kDenied];
    const auto &allowed = report.flows[kAllowed];
    std::printf("%s: %zu of %zu denied packets got through, %zu of %zu allowed ones were lost%s\n", what.c_str(),
                denied.leaked(), denied.packets.size(), allowed.lost(), allowed.packets.size(),
                isSound(report) ? "" : " (too few packets a second, or no room for them: not sound)");
    std::fflush(stdout);
}

void compareWithSingleCommands(std::size_t rules) {
    undertraffic::Firewall firewall(rules);
    firewall.beginTraffic(kPerSecond);
    firewall.reinitialiseOneByOne();
    print("one iptables call per command, once", firewall.endTraffic());
}

int measure(std::size_t rounds, std::size_t rules) {
    undertraffic::Firewall firewall(rules);
    firewall.beginTraffic(kPerSecond);
    std::size_t unsent = 0;
    for (std::size_t i = 0; i < rounds; ++i) {
        const undertraffic::Round round = firewall.reinitialise(i);
        if (round.disturbed && round.restored && round.changes > 0)
            continue;
        ++unsent;
        std::printf("round %zu, %s: %s\n", i, round.disturbance.c_str(),
                    !round.disturbed     ? "changed nothing"
                    : round.changes == 0 ? "no transaction was sent"
                                         : "the rules are not as they must be");
    }
    const traffic::Report report = firewall.endTraffic();
    std::fputs((report.leaksOf(kDenied) + report.lossesOf(kAllowed)).c_str(), stdout);
    const std::size_t wrong = report.flows[kDenied].leaked() + report.flows[kAllowed].lost() + unsent;
    print(std::to_string(rounds) + " re-initialisations of " + std::to_string(rules) + " rules", report);
    return wrong == 0 && isSound(report) ? EXIT_SUCCESS : EXIT_FAILURE;
}

void shell(const std::string &command) {
    const auto result = process::capture({"sh", "-c", command}, process::Options(), kReloadTime);
    if (result.status != 0)
        throw std::runtime_error(command + ": " + result.errors);
}

int measureReloads(const std::string &setUp, const std::string &reload, std::size_t rounds) {
    network::Pair pair;
    const Words destinations{pair.addFarAddress(), pair.addFarAddress()};
    traffic::reachOnce(pair, destinations);
    ::setenv("DENIED", destinations[kDenied].c_str(), 1);
    ::setenv("ALLOWED", destinations[kAllowed].c_str(), 1);
    shell(setUp);
    traffic::Stream stream(pair, destinations, kPerSecond);
    stream.waitForArrival(kAllowed);
    for (std::size_t i = 0; i < rounds; ++i)
        shell(reload);
    const traffic::Report report = stream.finish();
    print(reload + ", " + std::to_string(rounds) + " times", report);
    return isSound(report) ? EXIT_SUCCESS : EXIT_FAILURE;
}

std::size_t numberOr(const Words &words, std::size_t place, std::size_t otherwise) {
    return place < words.size() ? std::stoul(words[place]) : otherwise;
}

int run(const Words &words) try {
    if (words.size() > 2 && words[0] == "reload")
        return measureReloads(words[1], words[2], numberOr(words, 3, 5));
    const std::size_t rules = numberOr(words, 1, 1'000);
    return measure(numberOr(words, 0, 100), rules);
} catch (const std::exception &error) {
    std::printf("not measured: %s\n", error.what());
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    const Words words(argv + 1, argv + argc);
    if (words.empty() || words[0] != "reload") {
        sandbox::run([&] {
            try {
                compareWithSingleCommands(numberOr(words, 1, 1'000));
                return EXIT_SUCCESS;
            } catch (const std::exception &error) {
                std::printf("not measured: %s\n", error.what());
                return EXIT_FAILURE;
            }
        });
    }
    return sandbox::run([&] { return run(words); });
}
