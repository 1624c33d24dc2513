// Random connections to a table, checked against an oracle, iptables on plain lists.
#ifndef TESTS_PLATFORM_RLV_TABLE_RANDOM_CONNECTIONS_H
#define TESTS_PLATFORM_RLV_TABLE_RANDOM_CONNECTIONS_H

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "rlv/table/table.h"
#include "support/filter-oracle.h"

namespace randomly {

using filter::kFirstNew;

const std::vector<std::string> kOwn{"VPK-A", "VPK-B", "VPK-C", "VPK-D"};
constexpr const char *kUnmade = "VPK-BAD"; // where there is poison, nobody can make it
constexpr const char *kKept = "VPK-KEEP";  // nor remove this

// A rule as the service is told it, and as "iptables -S" shows it.
struct Text {
    std::string given;
    std::string shown;
};

inline Text ruleText(unsigned address, bool hasPort, const std::string &target) {
    const std::string host = "10.0.0." + std::to_string(address);
    if (address == 0)
        return {"-j " + target, "-j " + target};
    if (hasPort)
        return {"-p tcp -d " + host + " --dport 80 -j " + target,
                "-d " + host + "/32 -p tcp -m tcp --dport 80 -j " + target};
    return {"-s " + host + " -j " + target, "-s " + host + "/32 -j " + target};
}

constexpr unsigned kPoison = 66; // the last byte of an address that the kernel takes nowhere

inline rlv::Command parsed(const std::string &options) {
    return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-"));
}

inline std::string dump(const filter::Table &table) {
    std::ostringstream text;
    for (const auto &[name, chain] : table) {
        text << name << ":";
        for (const filter::Line &line : chain.lines)
            text << " [" << line.text << "]" << (line.handle < kFirstNew ? std::to_string(line.handle) : "new");
        text << "\n";
    }
    return text.str();
}

inline std::map<std::string, std::vector<std::string>> textsOf(const filter::Table &table) {
    std::map<std::string, std::vector<std::string>> texts;
    for (const auto &[name, chain] : table) {
        texts[name];
        for (const filter::Line &line : chain.lines)
            texts[name].push_back(line.text);
    }
    return texts;
}

inline bool isOwn(const std::string &chain) { return chain.rfind("VPK-", 0) == 0; }

inline std::size_t longestCommon(const std::vector<std::string> &left, const std::vector<std::string> &right) {
    std::vector<std::size_t> best(right.size() + 1, 0);
    for (const std::string &text : left) {
        std::size_t diagonal = 0;
        for (std::size_t i = 0; i < right.size(); ++i) {
            const std::size_t longest = text == right[i] ? diagonal + 1 : std::max(best[i], best[i + 1]);
            diagonal = std::exchange(best[i + 1], longest);
        }
    }
    return best.back();
}

// Long chains as commands know them: the lines of sub-chains where the branches to them stand.
inline void addFolded(const filter::Table &table, const std::string &chain, std::vector<filter::Line> &lines) {
    for (const filter::Line &line : table.at(chain).lines) {
        const std::string target = filter::jumpOf(line.text);
        if (target.find('.') == std::string::npos)
            lines.push_back(line);
        else
            addFolded(table, target, lines);
    }
}

inline filter::Table folded(const filter::Table &table) {
    filter::Table result;
    for (const auto &[name, chain] : table) {
        if (name.find('.') != std::string::npos)
            continue;
        result[name] = {chain.isBase, chain.isPinned, {}};
        addFolded(table, name, result[name].lines);
    }
    return result;
}

// The order of rules says nothing where all of them do the same.
inline filter::Table inAnyOrderThatSaysTheSame(filter::Table table) {
    const auto targetOf = [](const filter::Line &line) { return line.text.substr(line.text.find("-j ")); };
    const auto comesFirst = [](const filter::Line &left, const filter::Line &right) { return left.text < right.text; };
    for (auto &[name, chain] : table) {
        for (auto at = chain.lines.begin(); at != chain.lines.end();) {
            const std::string target = targetOf(*at);
            const auto end =
                std::find_if(at, chain.lines.end(), [&](const filter::Line &line) { return targetOf(line) != target; });
            std::sort(at, end, comesFirst);
            at = end;
        }
    }
    return table;
}

// Random commands on a few chains, so that they meet each other, given to a table and to the oracle. Whoever derives
// from it has the kernel behind the table, and the foreign program.
class RandomConnections {
public:
    RandomConnections(unsigned seed, std::size_t limit) : limit_(limit), random_(seed) {}
    virtual ~RandomConnections() = default;

    // Until the first divergence.
    void run(std::size_t steps) {
        for (std::size_t i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE("connection " + std::to_string(i));
            connect();
            if (testing::Test::HasFailure())
                std::cout << history_;
        }
    }

    std::size_t commands = 0;
    std::size_t pushes = 0;
    std::size_t edits = 0;

protected:
    struct Sent {
        rlv::PushReport report;
        std::size_t commits = 0; // transactions that were taken, where that is known
        bool wasBound = true;
        filter::Table before; // what the last of them met
    };
    // What the kernel has, and lets nobody do.
    virtual filter::Table truth() = 0;
    virtual filter::Refusals refusals() { return {}; }
    // A rule of which the service knows only that it is there.
    virtual bool isOpaque(std::uint64_t) const { return false; }
    virtual void editRandomly() = 0;
    virtual Sent send() {
        Sent sent;
        sent.before = truth();
        sent.report = table_->push();
        sent.commits = sent.report.changes > 0 ? 1 : 0;
        return sent;
    }

    unsigned upTo(unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(random_); }
    bool oneIn(unsigned n) { return upTo(n - 1) == 0; }
    template <typename List> const auto &pick(const List &list) {
        return list[upTo(static_cast<unsigned>(list.size()) - 1)];
    }

    void connect() {
        history_.clear();
        if (hasForeigners_ && oneIn(3))
            editRandomly();
        table_->open();
        connection_ = std::make_unique<filter::Connection>(truth(), limit_);
        isReadAgain_ = false;
        for (unsigned segments = 1 + upTo(2); segments > 0 && !testing::Test::HasFailure(); --segments) {
            if (oneIn(3))
                refill(pick(kOwn));
            for (unsigned i = upTo(mostCommands_); i > 0 && !testing::Test::HasFailure(); --i) {
                if (hasForeigners_ && oneIn(12))
                    editRandomly();
                applyRandom();
            }
            if (oneIn(8) && connection_->hasUnsent())
                describe_();
            if (oneIn(8))
                discard();
            else
                push();
        }
        if (!testing::Test::HasFailure() && !connection_->hasUnsent() && oneIn(4))
            describe_();
    }

    std::string target(const std::string &chain) {
        if (hasTrees_ && isOwn(chain) && !oneIn(60))
            return chain == kOwn.front() ? "ACCEPT" : "DROP";
        const unsigned kind = upTo(5);
        if (chain == "INPUT" || chain == "OUTPUT" || kind >= 4)
            return hasPoison_ && oneIn(12) ? kUnmade : pick(kOwn);
        return kind < 2 ? "ACCEPT" : "DROP";
    }

    Text randomRule(const std::string &chain, const std::string &target) {
        if (chain == "INPUT" || chain == "OUTPUT")
            return ruleText(0, false, target);
        if (hasPoison_ && oneIn(40))
            return ruleText(kPoison, oneIn(2), target);
        return ruleText(upTo(addresses_), oneIn(3), target);
    }

    void applyRandom() {
        const char action = pick(std::string("FNNXAAAAAAADDD"));
        std::string chain = pick(kOwn);
        if (hasPoison_ && oneIn(15))
            chain = oneIn(2) ? kUnmade : kKept;
        if ((action == 'A' || action == 'D') && oneIn(4))
            chain = oneIn(2) ? "INPUT" : "OUTPUT";
        std::vector<Text> rules;
        if (action == 'A' || action == 'D') {
            const std::string to = target(chain);
            for (unsigned i = oneIn(5) ? 1 + upTo(2) : 0; i + 1 > 0 && rules.size() <= i;)
                rules.push_back(randomRule(chain, to));
            const auto &view = connection_->view();
            // Rather something that stands.
            if (action == 'D' && rules.size() == 1 && isOwn(chain) && view.count(chain) > 0 && oneIn(2))
                for (const filter::Line &line : view.at(chain).lines)
                    if (oneIn(2) && known_.count(line.text) > 0)
                        rules[0] = {known_.at(line.text), line.text};
        }
        apply(action, chain, rules);
    }

    void apply(char action, const std::string &chain, const std::vector<Text> &rules) {
        filter::Command expected{action, chain, {}, ""};
        std::vector<rlv::Command> given;
        std::string text = std::string("-") + action + " " + chain;
        if (rules.empty())
            given.push_back(parsed(text));
        for (const Text &rule : rules) {
            given.push_back(parsed(text + " " + rule.given));
            expected.rules.push_back(rule.shown);
            known_[rule.shown] = rule.given;
        }
        for (const Text &rule : rules)
            text += " " + rule.given;
        expected.options = "#" + std::to_string(++commands) + " " + text;
        if (std::exchange(isReadAgain_, false))
            connection_ = std::make_unique<filter::Connection>(truth(), limit_);
        const filter::Reply reply = connection_->apply(expected);
        const rlv::Answer answer = table_->apply(given, expected.options);
        history_ += expected.options + " -> " + std::to_string(reply.code) + "\n";
        ASSERT_EQ(reply.code, answer.code) << expected.options << "\n" << answer.message << "\n" << reply.message;
        ASSERT_EQ(reply.message, answer.message) << expected.options;
    }

    // As a re-initialisation: mostly the same again.
    void refill(const std::string &chain) {
        const auto found = connection_->view().find(chain);
        const auto lines = found == connection_->view().end() ? std::vector<filter::Line>() : found->second.lines;
        apply('F', chain, {});
        if (oneIn(4)) {
            apply('X', chain, {});
            apply('N', chain, {});
        }
        const bool changes = oneIn(2);
        for (const filter::Line &line : lines) {
            if (testing::Test::HasFailure() || known_.count(line.text) == 0 || (changes && oneIn(5)))
                continue;
            apply('A', chain, {{known_.at(line.text), line.text}});
            if (changes && oneIn(5))
                apply('A', chain, {randomRule(chain, "DROP")});
        }
    }

    std::vector<filter::Line> linesOf(const std::string &name) {
        const auto table = truth();
        const auto chain = table.find(name);
        return chain == table.end() ? std::vector<filter::Line>() : chain->second.lines;
    }

    void describe_() {
        rlv::ServiceState state;
        table_->describe(state);
        std::string described;
        for (const auto &hook : state.hooks)
            described += hook.chain + ":" + hook.target + " ";
        for (const auto &chain : state.chains)
            described += chain.name + "=" + std::to_string(chain.rules) + " ";
        std::string expected;
        const auto table = truth();
        for (const char *const name : {"INPUT", "OUTPUT"}) {
            for (const filter::Line &line : linesOf(name)) {
                if (line.text.rfind("-j VPK-", 0) == 0)
                    expected += std::string(name) + ":" + line.text.substr(3) + " ";
            }
        }
        for (const auto &[name, chain] : table) {
            if (isOwn(name))
                expected += name + "=" + std::to_string(chain.lines.size()) + " ";
        }
        ASSERT_EQ(expected, described);
    }

    static std::vector<std::string> sorted(std::vector<std::string> list) {
        std::sort(list.begin(), list.end());
        return list;
    }
    static std::vector<std::string> optionsOf(const rlv::PushReport &report) {
        std::vector<std::string> list;
        for (const rlv::LostCommand &lost : report.lost) {
            EXPECT_NE(0, lost.code);
            list.push_back(lost.options);
        }
        return list;
    }

    void discard() {
        history_ += "drop\n";
        const auto before = dump(truth());
        const auto lost = optionsOf(table_->discard());
        EXPECT_EQ(sorted(connection_->discard()), sorted(lost));
        EXPECT_EQ(before, dump(truth()));
    }

    void push() {
        ++pushes;
        history_ += "push\n";
        const bool hadUnsent = connection_->hasUnsent();
        const auto sent = send();
        const auto after = truth();
        const auto outcome = connection_->push(sent.before, refusals());
        history_ += "before:\n" + dump(sent.before) + "wanted:\n" + dump(outcome.table) + "after:\n" + dump(after);
        EXPECT_EQ(textsOf(comparable(outcome.table)), textsOf(comparable(after)));
        EXPECT_EQ(sorted(outcome.lost), sorted(optionsOf(sent.report)));
        EXPECT_EQ(sent.report.changes > 0 ? 1U : 0U, sent.commits);
        if (testing::Test::HasFailure())
            return;
        if (!hasTrees_) // in which rules move
            checkHandles(outcome.table, after);
        if (!hadUnsent)
            return;
        if (!hasTrees_)
            checkReport(sent.report, sent.before, after, !sent.wasBound);
        connection_ = std::make_unique<filter::Connection>(after, limit_);
        // What was sent whatever others do leaves the table unknown: it is read before the next command.
        isReadAgain_ = !sent.wasBound && sent.report.changes > 0;
    }

    filter::Table comparable(const filter::Table &table) const {
        return hasTrees_ ? inAnyOrderThatSaysTheSame(table) : table;
    }

    // What nobody gave up is the same rule as before.
    static void checkHandles(const filter::Table &wanted, const filter::Table &after) {
        for (const auto &[name, chain] : wanted) {
            for (std::size_t i = 0; i < chain.lines.size(); ++i) {
                if (chain.lines[i].handle < kFirstNew) {
                    EXPECT_EQ(chain.lines[i].handle, after.at(name).lines[i].handle) << name << " " << i;
                }
            }
        }
    }

    void checkReport(const rlv::PushReport &report, const filter::Table &before, const filter::Table &after,
                     bool wasUnbound) {
        std::size_t added = 0;
        std::size_t removed = 0;
        std::size_t kept = 0;
        std::set<std::string> names;
        for (const auto &[name, chain] : before)
            names.insert(name);
        for (const auto &[name, chain] : after)
            names.insert(name);
        bool isSame = textsOf(before).size() == textsOf(after).size();
        for (const std::string &name : names) {
            isSame = isSame && before.count(name) == after.count(name);
            const auto old = before.count(name) > 0 ? before.at(name).lines : std::vector<filter::Line>();
            const auto now = after.count(name) > 0 ? after.at(name).lines : std::vector<filter::Line>();
            std::set<std::uint64_t> oldHandles;
            for (const filter::Line &line : old)
                oldHandles.insert(line.handle);
            std::size_t stayed = 0;
            for (const filter::Line &line : now)
                stayed += oldHandles.count(line.handle);
            added += now.size() - stayed;
            removed += old.size() - stayed;
            kept += isOwn(name) ? stayed : 0;
            if (!wasUnbound)
                checkKept(name, report, old, now, stayed);
        }
        EXPECT_EQ(added, report.added);
        EXPECT_EQ(removed, report.removed);
        EXPECT_EQ(kept, report.kept);
        if (!wasUnbound) {
            EXPECT_EQ(isSame && added + removed == 0, report.changes == 0);
        }
    }

    // Behind the last rule that had to stay, as many stay as can.
    void checkKept(const std::string &name, const rlv::PushReport &report, const std::vector<filter::Line> &old,
                   const std::vector<filter::Line> &now, std::size_t stayed) {
        const auto &view = connection_->view();
        const auto wanted = view.count(name) > 0 ? view.at(name).lines : std::vector<filter::Line>();
        std::size_t oldTail = 0;
        std::size_t newTail = 0;
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            for (std::size_t j = 0; j < old.size(); ++j) {
                if (wanted[i].handle == old[j].handle) {
                    oldTail = j + 1;
                    newTail = i + 1;
                }
            }
        }
        const auto texts = [&](const std::vector<filter::Line> &lines, std::size_t from) {
            std::vector<std::string> list;
            for (std::size_t i = from; i < lines.size(); ++i) {
                if (!isOpaque(lines[i].handle))
                    list.push_back(lines[i].text);
            }
            return list;
        };
        const std::size_t most = newTail + longestCommon(texts(old, oldTail), texts(now, newTail));
        const bool wasRefilled =
            std::find(report.refilled.begin(), report.refilled.end(), name) != report.refilled.end();
        EXPECT_EQ(wasRefilled ? 0 : most, stayed) << name;
        EXPECT_TRUE(!wasRefilled || (isOwn(name) && most > 0)) << name;
    }

    bool hasForeigners_ = true;
    bool hasPoison_ = false;
    bool hasTrees_ = false; // for which chains are long, and mostly of one target
    unsigned addresses_ = 5;
    unsigned mostCommands_ = 8;
    std::unique_ptr<rlv::Table> table_;
    std::map<std::string, std::string> known_; // how a rule that is shown so is given
    bool isReadAgain_ = false;
    std::string history_;

private:
    std::size_t limit_;
    std::mt19937 random_;
    std::unique_ptr<filter::Connection> connection_;
};

} // namespace randomly

#endif
