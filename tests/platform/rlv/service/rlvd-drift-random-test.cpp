// Others change the tables in the middle of connections, at random.
#include "rlvd-process.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "support/random-seed.h"

namespace {

using namespace rlvd;
using Lines = std::vector<std::string>;

constexpr std::size_t kRounds = 300;
constexpr process::Duration kMended{1'000};

Lines linesOf(const std::string &text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The own chains, and the hooks to them, in the order in which iptables shows them.
Lines standing() {
    Lines lines;
    for (const auto &line : linesOf(process::capture({"iptables", "-S"}).output)) {
        const bool isOurs = line.find("-A VPK-") == 0 || line.find("-N VPK-") == 0 || line.find("-j VPK-") != line.npos;
        if (isOurs)
            lines.push_back(line);
    }
    return lines;
}

class ForeignChanges : public testing::Test {
protected:
    void SetUp() override { others("nft flush ruleset"); }

    static void others(const std::string &command) {
        const auto result = process::capture({"sh", "-c", command});
        EXPECT_EQ(0, result.status) << command << ": " << result.errors;
    }

    std::size_t below(std::size_t bound) { return std::uniform_int_distribution<std::size_t>(0, bound - 1)(source); }
    std::string newAddress() {
        ++lastAddress;
        return "10." + std::to_string(lastAddress / 62'500) + "." + std::to_string(lastAddress / 250 % 250) + "." +
               std::to_string(1 + lastAddress % 250);
    }

    // The commands of one operation, and what they make of `rules`.
    Lines operation() {
        Lines commands;
        const auto append = [&] {
            const std::string rule = "-A VPK-DENY -s " + newAddress() + "/32 -j VPK-LOGANDDROP";
            commands.push_back(rule);
            rules.push_back(rule);
        };
        const std::size_t kind = below(3);
        if (kind == 0 && !rules.empty()) {
            const std::size_t place = below(rules.size());
            commands.push_back("-D" + rules[place].substr(2));
            rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(place));
        }
        if (kind == 1) {
            commands.emplace_back("-F VPK-DENY");
            rules.clear();
        }
        for (std::size_t i = 0; i < 3; ++i)
            append();
        return commands;
    }

    std::string foreignChange() {
        static const Lines changes{
            "iptables -F",
            "iptables -F; iptables -X",
            "nft flush ruleset",
            "nft delete table ip filter",
            "iptables -F VPK-DENY",
            "iptables -F VPK-LOGANDDROP",
            "iptables -F INPUT",
            "iptables -F OUTPUT; iptables -F VPK-ALLOW",
            "iptables -D VPK-DENY 1",
            "iptables -D VPK-LOGANDDROP 2",
            "iptables -R VPK-LOGANDDROP 2 -j ACCEPT",
            "iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix x",
            "iptables -R VPK-DENY 2 -s 10.250.0.1 -j ACCEPT",
            "iptables -I VPK-DENY -j ACCEPT",
            "iptables -I VPK-ALLOW -p tcp --dport 80 -m comment --comment mine -j ACCEPT",
            "iptables -A VPK-DENY -j RETURN",
            "iptables -D INPUT -j VPK-ALLOW",
            "iptables -D OUTPUT -j VPK-DENY",
            "iptables -I INPUT -j VPK-DENY",
            "iptables -A OUTPUT -j VPK-ALLOW",
            "iptables -D INPUT -j VPK-DENY; iptables -I INPUT -j VPK-DENY",
            "iptables -A INPUT -s 10.251.0.1 -j ACCEPT",
            "iptables -N OTHER 2>/dev/null; iptables -A OTHER -j ACCEPT",
            "nft add table inet theirs; nft delete table inet theirs",
        };
        return changes[below(changes.size())];
    }

    Lines expected() const {
        Lines lines{"-N VPK-ALLOW",          "-N VPK-DENY",          "-N VPK-LOGANDDROP",
                    "-A INPUT -j VPK-ALLOW", "-A INPUT -j VPK-DENY", "-A OUTPUT -j VPK-ALLOW",
                    "-A OUTPUT -j VPK-DENY"};
        lines.insert(lines.end(), rules.begin(), rules.end());
        lines.emplace_back("-A VPK-LOGANDDROP -j LOG --log-prefix \"IPTables-Dropped:\"");
        lines.emplace_back("-A VPK-LOGANDDROP -j DROP");
        return lines;
    }

    std::mt19937 source{seeds::seedOfThisRun()};
    std::size_t lastAddress = 0;
    Lines rules; // in VPK-DENY
};

TEST_F(ForeignChanges, InTheMiddleOfAConnectionAreNeverWrongAndUnsaid) {
    Service service({});
    {
        Client client;
        for (const char *const command :
             {"-N VPK-ALLOW", "-N VPK-DENY", "-N VPK-LOGANDDROP", "-A INPUT -j VPK-ALLOW", "-A INPUT -j VPK-DENY",
              "-A OUTPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-DENY",
              "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP"})
            EXPECT_EQ("0: ", client.commit(command));
        EXPECT_EQ(0, client.close());
    }
    int said = 0;
    const std::size_t rounds = seeds::stepsOfThisRun(kRounds);
    for (std::size_t round = 0; round < rounds; ++round) {
        const Lines before = rules;
        const Lines commands = operation();
        const std::size_t when = below(commands.size() + 1);
        const std::string change = foreignChange();
        Client client;
        bool isRefused = false;
        for (std::size_t i = 0; i <= commands.size(); ++i) {
            if (i == when)
                static_cast<void>(process::capture({"sh", "-c", change}));
            if (i < commands.size())
                isRefused = client.commit(commands[i]) != "0: " || isRefused;
        }
        const bool isSaid = client.close() != 0 || isRefused;
        said += isSaid ? 1 : 0;
        const bool isMended = process::waitUntil([this] { return standing() == expected(); }, kMended);
        ASSERT_TRUE(isMended || isSaid) << "round " << round << ", " << change << " before command " << when << ":\n"
                                        << testing::PrintToString(commands) << "\n"
                                        << testing::PrintToString(standing()) << "\n"
                                        << service.log().substr(service.log().size() -
                                                                std::min<std::size_t>(service.log().size(), 3'000));
        if (!isMended) { // said: what stands is the beginning of the next round
            rules.clear();
            for (const auto &line : standing()) {
                if (line.find("-A VPK-DENY") == 0)
                    rules.push_back(line);
            }
        }
    }
    std::printf("%zu rounds, %d said at the end of their connection\n", rounds, said);
    EXPECT_EQ(0, said) << "each can be mended";
}

} // namespace
