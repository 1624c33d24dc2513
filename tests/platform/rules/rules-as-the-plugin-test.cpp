// What the platform knows of rule texts, held against the plugin itself: its library is loaded, random lists are handed
// to its commands, and it answers and sends what was said beforehand. NYR_TEST_STEPS sets how many lists,
// NYR_TEST_SEED which.
#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "host/plugin-library.h"
#include "mavo/rmi.h"
#include "rlv/rlv.h"
#include "rules/rule-commands.h"
#include "rules/rule-list.h"
#include "support/random-seed.h"
#include "vpk-pil/vpk-pil.h"

namespace {

using Commands = std::vector<std::string>;

Commands &sent() {
    static Commands commands;
    return commands;
}

} // namespace

// The plugin finds these before those of the client's library: a service that takes everything.
extern "C" {
__attribute__((visibility("default"))) int rlv_initialize(rlv_handle *handle) {
    *handle = 1;
    return 0;
}
__attribute__((visibility("default"))) int rlv_deinitialize(rlv_handle) { return 0; }
__attribute__((visibility("default"))) int rlv_iptables_commit(rlv_handle, const char *options, int *errorCode,
                                                               char **) {
    sent().emplace_back(options);
    *errorCode = 0;
    return 0;
}
}

namespace {

constexpr std::size_t kUsualLists = 6'000;
constexpr unsigned kListsBetweenFlushes = 12; // the plugin copies its whole database after each rule

class Statuses : public PolicyStorage {
public:
    int storeStatus(const std::string &, int status) override {
        status_ = status;
        return 0;
    }
    int readStatus(const std::string &) override { return status_; }

private:
    int status_ = -1;
};

// Draws lists. Few enough words that rules meet again and oppose each other.
class Texts {
public:
    explicit Texts(unsigned seed) : engine_(seed) {}

    bool oneIn(unsigned count) { return below(count) == 0; }

    std::string list() {
        std::string text = damagedOneIn(4, rule());
        for (unsigned more = oneIn(3) ? below(4) : 0; more > 0; --more)
            text += ";" + damagedOneIn(12, rule());
        if (oneIn(8))
            text += ";";
        return oneIn(40) ? ";" + text : text;
    }

private:
    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine_); }

    template <std::size_t count> std::string word(const std::array<const char *, count> &words) {
        return words[below(count)];
    }

    std::string rule() {
        static constexpr std::array<const char *, 10> kProtocols = {"tcp", "udp", "TCP", "icmp", "6",
                                                                    "*",   "",    "t*p", "sctp", "no such"};
        static constexpr std::array<const char *, 10> kAddresses = {"10.0.0.5", "10.0.0.0/8", "*",   "",  "10.0.*",
                                                                    "a",        "b.example.", "::1", " ", "10.5"};
        static constexpr std::array<const char *, 16> kPorts = {"80",    "8000-8080", "*",   "",   "-",  "1-2-3",
                                                                "-80",   "80-",       "8*x", "*-", "99", "99999",
                                                                "0-080", "53",        "443", "22"};
        std::string text = word(kProtocols) + ":" + word(kAddresses) + ":" + (oneIn(6) ? number() : word(kPorts));
        return text + direction();
    }

    std::string number() { return std::to_string(below(70'000)); }

    std::string direction() {
        static constexpr std::array<const char *, 12> kDirections = {"",    "",     "",     ":in", ":out",  ":bid",
                                                                     ":IN", ":Out", ":bId", ":",   ":both", ":in:x"};
        return word(kDirections);
    }

    // With some bytes more, fewer, or others.
    std::string damagedOneIn(unsigned count, std::string text) {
        if (!oneIn(count))
            return text;
        for (unsigned times = 1 + below(3); times > 0; --times) {
            const std::size_t at = below(static_cast<unsigned>(text.size()) + 1);
            if (oneIn(2))
                text.insert(at, 1, byte());
            else if (at < text.size() && oneIn(2))
                text.erase(at, 1 + below(4));
            else if (at < text.size())
                text[at] = byte();
        }
        return text;
    }

    char byte() {
        constexpr std::string_view kLikely = ":::;;**--0123456789inoutbdINOUTBD. /x";
        return oneIn(4) ? static_cast<char>(below(256)) : kLikely[below(static_cast<unsigned>(kLikely.size()))];
    }

    std::mt19937 engine_;
};

// What the plugin has stored, and what it sends next, worked out by what the platform knows.
class Foresight {
public:
    // The commands for a list whose rules are all good.
    Commands commandsOf(const std::vector<rules::ReadRule> &list, bool allowed) {
        Commands commands;
        for (const auto &read : list) {
            const bool opposes = save({read.rule, allowed});
            if (!opposes) {
                append(rows_.back(), commands);
                continue;
            }
            commands.insert(commands.end(), {"-F VPK-ALLOW", "-F VPK-DENY"});
            for (const auto &row : rows_)
                append(row, commands);
        }
        return commands;
    }

    void flush(bool allowed) {
        rows_.erase(
            std::remove_if(rows_.begin(), rows_.end(), [allowed](const Row &row) { return row.allowed == allowed; }),
            rows_.end());
    }

private:
    struct Row {
        rules::Rule rule;
        bool allowed;
    };

    // One row for each protocol, address and port. True where there was one of the other kind or direction.
    bool save(const Row &row) {
        const auto key = [](const rules::Rule &rule) { return std::tie(rule.protocol, rule.address, rule.port); };
        const auto known = std::find_if(rows_.begin(), rows_.end(),
                                        [&](const Row &stored) { return key(stored.rule) == key(row.rule); });
        bool opposes = false;
        if (known != rows_.end()) {
            opposes = known->allowed != row.allowed || known->rule.direction != row.rule.direction;
            rows_.erase(known);
        }
        rows_.push_back(row);
        return opposes;
    }

    static void append(const Row &row, Commands &commands) {
        rules::forEachCommandOf(row.rule, row.allowed,
                                [&](std::string_view options) { commands.emplace_back(options); });
    }

    std::vector<Row> rows_; // in the database's order
};

class RuleTexts : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        PolicyStorage::backend = &statuses_;
        const auto factory = host::loadPlugin(NYR_BINARY_DIR "/lib/libnyr-firewall-plugin.so");
        plugin_.reset(factory(service_));
        ASSERT_NE(plugin_, nullptr);
    }

    std::string execute(bool allowed, const char *verb, const char *object, const std::string &data) {
        sent().clear();
        return plugin_->executeCommand(std::string(verb) + (allowed ? "Allow" : "Deny") + object, data);
    }

    void flush(Foresight &foresight) {
        for (const bool allowed : {false, true}) {
            EXPECT_EQ(execute(allowed, "Flush", "Rules", ""), "");
            foresight.flush(allowed);
        }
    }

    // True for a list that the plugin takes.
    bool check(const std::string &list, bool allowed, Foresight &foresight) {
        const auto read = rules::readRules(list);
        const bool isGood =
            !list.empty() && std::none_of(read.begin(), read.end(), [](const auto &rule) { return rule.problem; });
        const Commands expected = isGood ? foresight.commandsOf(read, allowed) : Commands();
        EXPECT_EQ(execute(allowed, "Apply", "Rules", list), isGood ? "" : host::kFail) << testing::PrintToString(list);
        EXPECT_EQ(sent(), expected) << testing::PrintToString(list);
        return isGood;
    }

    Statuses statuses_;
    mavo::rmi::Service service_;
    std::unique_ptr<AbstractDPluginProvider> plugin_;
};

TEST_F(RuleTexts, AreTakenRefusedAndMadeCommandsOfAsThePluginDoesIt) {
    Texts texts(seeds::seedOfThisRun());
    Foresight foresight;
    const std::size_t all = seeds::stepsOfThisRun(kUsualLists);
    std::size_t good = 0;
    for (std::size_t step = 0; step < all && !HasFailure(); ++step) {
        if (step % kListsBetweenFlushes == 0)
            flush(foresight);
        good += check(texts.list(), texts.oneIn(2), foresight) ? 1U : 0U;
    }
    std::cout << all << " lists, " << good << " of them good" << std::endl;
    EXPECT_GE(good * 10, all * 3) << "too few good ones to say much";
    EXPECT_GE((all - good) * 10, all * 3) << "too few bad ones to say much";
}

} // namespace
