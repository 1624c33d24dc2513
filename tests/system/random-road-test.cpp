// The whole road under random operations: rule lists good, odd and malformed, flushes, policy documents, status
// changes, restarts, and neighbours who meddle. After each step database, backup, kernel, status and reply are compared
// with an oracle.
//
// A run prints its seed; NYR_RANDOM_SEED=<seed> repeats it, NYR_RANDOM_STEPS=<count> makes it longer or shorter.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

#include "mavo/rmi-client.h"
#include "rlv/rlv-query.h"
#include "system/system-test.h"

namespace {

using firewall_oracle::Chain;
using systemtest::storedRules;

constexpr unsigned kStepsWithKernel = 150;
constexpr unsigned kStepsWithSimulation = 400;

unsigned numberFrom(const char *variable, unsigned otherwise) {
    const char *text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

// Draws operations and what they are about. Few enough words that rules meet again and oppose each other.
class Source {
public:
    explicit Source(unsigned seed) : engine_(seed) {}

    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine_); }
    bool oneIn(unsigned count) { return below(count) == 0; }

    template <std::size_t count> std::string word(const std::array<const char *, count> &words) {
        return words[below(count)];
    }

    std::string rule() {
        static constexpr std::array<const char *, 10> protocols = {"tcp", "tcp",  "tcp", "udp", "TCP",
                                                                   "6",   "icmp", "*",   "",    "Sctp"};
        static constexpr std::array<const char *, 8> domains = {"10.0.0.1",    "10.0.0.1", "10.0.0.2", "10.0.0.9/24",
                                                                "10.0.0.0/24", "*",        "10.0.*",   "0.0.0.0/0"};
        static constexpr std::array<const char *, 11> ports = {"80",  "80",  "443", "8000-8080", "*",      "",
                                                               "-80", "80-", "0",   "65535",     "0-65535"};
        if (oneIn(10))
            return refusedRule();
        return word(protocols) + ":" + word(domains) + ":" + word(ports) + direction();
    }

    // One that the parser takes and the service does not.
    std::string refusedRule() {
        static constexpr std::array<const char *, 17> rules = {
            "tcp:10.0.0.1:70000",   "tcp:10.0.0.1:1-2-3",   "tcp:10.0.0.1:90-80", "tcp:10.0.0.1:080",
            "udp:10.0.0.1:65536",   "nonsense:10.0.0.1:80", "tcp:256.1.1.1:80",   "tcp:10.0.0.1/33:80",
            "tcp:010.0.0.1:80",     "tcp:10.0.0:80",        "tcp:0x0a000001:80",  "tcp:10.0.0.1,10.0.0.2:80",
            "tcp:a-name.example:1", "tcp:!10.0.0.1:80",     "tcp :10.0.0.1:80",   "tcp:10.0.0.1 -j ACCEPT:80",
            "!tcp:10.0.0.1:80",
        };
        return word(rules) + direction();
    }

    std::string malformedRule() {
        static constexpr std::array<const char *, 8> rules = {
            "",
            "tcp",
            "tcp:10.0.0.1",
            "tcp:10.0.0.1:8o",
            "tcp:10.0.0.1:80:up",
            "tcp:10.0.0.1:80:in:x",
            "tcp:10.0.0.1:80:",
            "tcp:10.0.0.1: 80",
        };
        return word(rules);
    }

    std::vector<std::string> rules() {
        std::vector<std::string> list;
        for (unsigned i = below(4) + 1; i > 0; --i)
            list.push_back(oneIn(25) ? malformedRule() : rule());
        return list;
    }

    std::string ruleList() {
        std::string list;
        for (const auto &one : rules())
            list += one + ";";
        if (oneIn(2))
            list.pop_back();
        return oneIn(30) ? "" : list;
    }

private:
    std::string direction() {
        static constexpr std::array<const char *, 7> words = {"", ":in", ":out", ":bid", ":IN", ":Out", ":bId"};
        return word(words);
    }

    std::mt19937 engine_;
};

// The host over its socket, without a vpkctl for each call.
class Host {
public:
    void connect() { client_.emplace(wholesystem::kHostSocket); }

    std::string execute(const std::string &command, const std::string &data) {
        mavo::rmi::Message request;
        request.write(command);
        request.write(data);
        std::string reply;
        call("Host::executeCommand", request).read(reply);
        return reply;
    }

    template <typename... Values> int number(const std::string &method, const Values &...values) {
        mavo::rmi::Message request;
        (request.write(values), ...);
        int result = 0;
        call(method, request).read(result);
        return result;
    }

private:
    mavo::rmi::Message call(const std::string &method, const mavo::rmi::Message &request) {
        const auto reply = client_->call(method, request);
        EXPECT_EQ(reply.status, mavo::rmi::Status::ok) << method << ": " << reply.error;
        return mavo::rmi::Message(reply.body);
    }

    std::optional<mavo::rmi::Client> client_;
};

// One chain of the kernel's listing.
Chain chainFrom(const std::vector<std::string> &listing, const std::string &name) {
    const std::string start = "-A " + name + " ";
    Chain chain;
    for (const auto &line : listing) {
        if (line.compare(0, start.size(), start) == 0)
            chain.push_back(line.substr(start.size()));
    }
    return chain;
}

// Tells where two lists differ first, not both of them.
template <typename List> void expectSame(const char *what, const List &actual, const List &expected) {
    const auto [one, other] = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    if (one == actual.end() && other == expected.end())
        return;
    std::ostringstream difference;
    difference << what << " differs at entry " << one - actual.begin() << ": ";
    one == actual.end() ? difference << "nothing" : difference << *one;
    difference << " instead of ";
    other == expected.end() ? difference << "nothing" : difference << *other;
    ADD_FAILURE() << difference.str();
}

class RandomRoad : public testing::Test {
protected:
    void SetUp() override {
        std::cout << "NYR_RANDOM_SEED=" << seed << std::endl;
        if (const auto listing = process::capture({"iptables", "-w", "-S"}); listing.status != 0)
            GTEST_SKIP() << "no packet filter to be had: " << listing.errors;
    }

    void start(bool simulate) {
        wholesystem::System::Options options;
        options.serviceArguments = {"--no-repair"}; // the neighbour's flushes stay for as long as the road says
        options.simulate = simulate;
        system.emplace(options);
        ASSERT_TRUE(system->start());
        host.connect();
        road.start();
        getStatus();
    }

    struct Operation {
        unsigned weight;
        const char *name;
        std::function<void()> run;
        bool needsKernel = false;
    };

    std::vector<Operation> operations() {
        return {
            {24, "ApplyAllowRules", [this] { execute("ApplyAllowRules", source.ruleList()); }},
            {24, "ApplyDenyRules", [this] { execute("ApplyDenyRules", source.ruleList()); }},
            {2, "FlushAllowRules", [this] { execute("FlushAllowRules", ""); }},
            {2, "FlushDenyRules", [this] { execute("FlushDenyRules", "ignored"); }},
            {8, "remote ApplyAllowRules", [this] { applyRemotely(true); }},
            {8, "remote ApplyDenyRules", [this] { applyRemotely(false); }},
            {1, "remote flushes", [this] { flushRemotely(); }},
            {6, "ApplyPolicy", [this] { applyPolicy(); }},
            {1, "garbage policy",
             [this] { expectReply("", host.execute("ApplyPolicy", "garbage"), road.applyPolicy({})); }},
            {1, "unknown command", [this] { execute("applyallowrules", "tcp:10.0.0.1:80"); }},
            {3, "setStatus", [this] { setStatus(); }},
            {2, "applyStatus", [this] { applyStatus(); }},
            {2, "enable again", [this] { enable(); }},
            {2, "restart", [this] { restart(); }},
            {2, "kill", [this] { kill(); }},
            {2, "reload", [this] { reload(); }},
            {2, "foreign flush", [this] { flushAsNeighbour(); }, true},
            {2, "foreign rule", [this] { appendAsNeighbour(); }, true},
        };
    }

    void run(unsigned steps, bool withKernel) {
        auto choices = operations();
        if (!withKernel)
            choices.erase(std::remove_if(choices.begin(), choices.end(),
                                         [](const Operation &operation) { return operation.needsKernel; }),
                          choices.end());
        unsigned sum = 0;
        for (const auto &choice : choices)
            sum += choice.weight;
        for (unsigned step = 0; step < steps && !HasFailure(); ++step) {
            unsigned drawn = source.below(sum);
            auto choice = choices.begin();
            for (; drawn >= choice->weight; ++choice)
                drawn -= choice->weight;
            told.str("");
            choice->run();
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + ": " + choice->name +
                         told.str());
            compareStore();
            withKernel ? compareKernel() : compareSimulation();
        }
    }

    // Operations -------------------------------------------------------------------------------------------------

    void expectReply(const std::string &what, const std::string &reply, const std::string &expected) {
        told << " " << what;
        EXPECT_EQ(reply, expected) << told.str();
    }

    void execute(const std::string &command, const std::string &data) {
        expectReply(data, host.execute(command, data), road.execute(command, data));
    }

    void applyRemotely(bool allowed) {
        const std::string list = source.ruleList();
        told << " " << list;
        const int result = host.number(allowed ? "Firewall::ApplyAllowRules" : "Firewall::ApplyDenyRules", list);
        EXPECT_EQ(result, allowed ? road.applyAllow(list) : road.applyDeny(list)) << told.str();
    }

    void flushRemotely() {
        EXPECT_EQ(host.number("Firewall::FlushAllowRules"), road.flushAllow());
        EXPECT_EQ(host.number("Firewall::FlushDenyRules"), road.flushDeny());
    }

    void applyPolicy() {
        const auto rules = source.rules();
        std::string document = "{\"DENY\": [\"udp:10.9.9.9:9\"], \"ALLOW\": [";
        for (std::size_t i = 0; i < rules.size(); ++i)
            document += (i == 0 ? "\"" : ", \"") + rules[i] + "\"";
        document += "]}";
        expectReply(document, host.execute("ApplyPolicy", document), road.applyPolicy(rules));
    }

    int drawStatus() {
        const int status = static_cast<int>(source.below(3));
        told << " " << status;
        return status;
    }
    void setStatus() {
        const int status = drawStatus();
        EXPECT_EQ(host.number("Host::setStatus", status), road.setStatus(status)) << told.str();
        getStatus();
    }
    void applyStatus() {
        const int status = drawStatus();
        host.number("Host::applyStatus", status);
        road.applyStatus(status);
        getStatus();
    }
    void enable() { EXPECT_EQ(host.number("Host::setStatus", 1), road.setStatus(1)); }
    void getStatus() { EXPECT_EQ(host.number("Host::getStatus"), road.storedStatus()); }

    void startAgain() {
        ASSERT_TRUE(system->startHost());
        host.connect();
        road.start();
        getStatus();
    }
    void restart() {
        ASSERT_EQ(system->stopHost(), 0);
        startAgain();
    }
    void kill() {
        system->killHost();
        startAgain();
    }
    void reload() {
        EXPECT_EQ(host.number("Host::reload"), 0);
        road.start();
    }

    void flushAsNeighbour() {
        const std::string chain = source.oneIn(2) ? "VPK-ALLOW" : "VPK-DENY";
        told << " " << chain;
        network::iptables({"-F", chain});
        road.foreignFlush(chain);
    }
    void appendAsNeighbour() {
        const std::string chain = source.oneIn(2) ? "INPUT" : "OUTPUT";
        const std::string address = "192.0.2." + std::to_string(source.below(200));
        told << " " << chain << " " << address;
        network::iptables({"-A", chain, "-s", address, "-j", "ACCEPT"});
        road.foreignAppend(chain, "-s " + address + "/32 -j ACCEPT");
    }

    // Comparison -------------------------------------------------------------------------------------------------

    void compareStore() {
        expectSame("the database", storedRules(), road.rows());
        ASSERT_EQ(std::filesystem::exists(wholesystem::kRuleBackup), road.backedUp());
        if (road.backedUp()) {
            expectSame("the backup", storedRules(wholesystem::kRuleBackup), road.rows());
        }
    }

    void compareKernel() {
        const auto listing = network::listRules();
        expectSame("VPK-ALLOW", chainFrom(listing, "VPK-ALLOW"), road.allow);
        expectSame("VPK-DENY", chainFrom(listing, "VPK-DENY"), road.deny);
        expectSame("VPK-LOGANDDROP", chainFrom(listing, "VPK-LOGANDDROP"), road.logAndDrop);
        expectSame("INPUT", chainFrom(listing, "INPUT"), road.input);
        expectSame("OUTPUT", chainFrom(listing, "OUTPUT"), road.output);
    }

    void compareSimulation() {
        const auto state = rlv::query(0);
        EXPECT_TRUE(state.simulated);
        std::map<std::string, std::uint64_t> counts;
        for (const auto &chain : state.chains)
            counts[chain.name] = chain.rules;
        const std::map<std::string, std::uint64_t> expected = {{"VPK-ALLOW", road.allow.size()},
                                                               {"VPK-DENY", road.deny.size()},
                                                               {"VPK-LOGANDDROP", road.logAndDrop.size()}};
        EXPECT_EQ(counts, expected);
        Chain input;
        Chain output;
        for (const auto &hook : state.hooks)
            (hook.chain == "INPUT" ? input : output).push_back("-j " + hook.target);
        EXPECT_EQ(input, road.input);
        EXPECT_EQ(output, road.output);
    }

    unsigned seed = numberFrom("NYR_RANDOM_SEED", std::random_device()());
    Source source{seed};
    firewall_oracle::Road road;
    std::optional<wholesystem::System> system;
    Host host;
    std::ostringstream told; // what the step was about
};

TEST_F(RandomRoad, KeepsDatabaseAndKernelAsTheModelHasThem) {
    start(false);
    run(numberFrom("NYR_RANDOM_STEPS", kStepsWithKernel), true);
}

TEST_F(RandomRoad, KeepsDatabaseAndSimulatedTableAsTheModelHasThem) {
    start(true);
    rlv::setSocketPath(wholesystem::kServiceSocket);
    run(numberFrom("NYR_RANDOM_STEPS", kStepsWithSimulation), false);
}

} // namespace
