// Random connections, with a foreign program at work between and inside them, held against a model of iptables on plain
// lists.
#include <cerrno>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "random-connections.h"
#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/transactional-table.h"
#include "scripted-backend.h"
#include "support/random-seed.h"

namespace {

using namespace randomly;
using rlv::Change;
using Kind = rlv::Change::Kind;

struct Settings {
    std::size_t limit = 10'000;
    bool hasForeigners = true;
    bool hasRefusals = true;
    bool hasConflicts = true;
    std::size_t treeFrom = 0;
};

// So that chains of a few rules have branches.
rlv::shape::Limits limitsOf(std::size_t treeFrom) {
    rlv::shape::Limits limits;
    limits.treeFrom = treeFrom;
    limits.tuning.leafRules = limits.tuning.costlyLeafRules = 4;
    limits.tuning.leastRules = 2;
    return limits;
}

class Simulated : public RandomConnections {
public:
    Simulated(unsigned seed, const Settings &settings) : RandomConnections(seed, settings.limit), settings_(settings) {
        auto backend = std::make_unique<scripted::Backend>();
        backend_ = backend.get();
        hasTrees_ = settings.treeFrom > 0;
        std::unique_ptr<rlv::RulesetBackend> used = std::move(backend);
        if (hasTrees_)
            used = rlv::makeShapedBackend(std::move(used), "VPK-", limitsOf(settings.treeFrom));
        table_ = std::make_unique<rlv::TransactionalTable>(std::move(used), "VPK-", settings.limit);
        if (hasTrees_) {
            addresses_ = 60;
            mostCommands_ = 40;
        }
        hasForeigners_ = settings.hasForeigners;
        hasPoison_ = settings.hasRefusals;
        if (settings.hasRefusals)
            backend_->refuse = [this](const Change &change) { return refuse(change); };
        backend_->beforeCommit = [this] {
            if (editsDuringPush_ > 0) {
                --editsDuringPush_;
                editRandomly();
            }
        };
    }

    std::size_t trees = 0; // that transactions left

private:
    Sent send() override {
        if (settings_.hasConflicts && settings_.hasForeigners && oneIn(6))
            editsDuringPush_ = static_cast<int>(upTo(3));
        if (settings_.hasConflicts && oneIn(15))
            backend_->conflictsToCome = static_cast<int>(upTo(20));
        if (settings_.hasRefusals)
            backend_->tellsIndexes = !oneIn(3);
        const auto commits = backend_->commits;
        const auto unbound = backend_->unbound;
        backend_->beforeLastCommit.reset();
        Sent sent;
        sent.report = table_->push();
        editsDuringPush_ = backend_->conflictsToCome = 0;
        sent.commits = backend_->commits - commits;
        sent.wasBound = backend_->unbound == unbound;
        sent.before = backend_->beforeLastCommit ? tableOf(*backend_->beforeLastCommit) : truth();
        trees += backend_->truth().chains.size() > truth().size() ? 1 : 0;
        return sent;
    }

    filter::Refusals refusals() override {
        filter::Refusals all;
        if (!settings_.hasRefusals)
            return all;
        all.makings.insert(kUnmade);
        all.removals.insert(kKept);
        for (const auto &[shown, given] : known_) {
            if (shown.find("10.0.0." + std::to_string(kPoison) + "/32") != std::string::npos)
                all.rules.insert(shown);
        }
        return all;
    }

    bool isOpaque(std::uint64_t handle) const override { return backend_->opaque.count(handle) > 0; }

    static int refuse(const Change &change) {
        if (change.rule != nullptr) {
            const auto &rule = *change.rule;
            const bool isPoison = (rule.source && (rule.source->address & 0xffU) == kPoison) ||
                                  (rule.destination && (rule.destination->address & 0xffU) == kPoison);
            return isPoison ? EINVAL : 0;
        }
        if (change.kind == Kind::addChain && *change.chain == kUnmade)
            return EPERM;
        return change.kind == Kind::deleteChain && *change.chain == kKept ? EBUSY : 0;
    }

    filter::Table tableOf(const rlv::Ruleset &ruleset) const {
        filter::Table table;
        for (const auto &[name, standing] : ruleset.chains) {
            filter::Chain &chain = table[name];
            chain.isBase = standing.isBase;
            chain.isPinned = backend_->pinned.count(name) > 0;
            for (const rlv::StandingRule &rule : standing.rules)
                chain.lines.push_back(
                    {rule.handle, (backend_->opaque.count(rule.handle) > 0 ? "-i lo " : "") + describe(*rule.rule)});
        }
        return folded(table);
    }
    filter::Table truth() override { return tableOf(backend_->truth()); }

    void editRandomly() override {
        rlv::Rule rule;
        const auto table = truth();
        std::vector<std::string> names{"INPUT", "OTHER"};
        names.insert(names.end(), kOwn.begin(), kOwn.end());
        const std::string name = pick(names);
        const auto chain = table.find(name);
        Change change;
        change.chain = &name;
        change.rule = &rule;
        // A jump that comes and goes while something is sent may have closed a loop, and cost a rule, without a trace.
        const std::string to = !settings_.hasConflicts && oneIn(3) ? pick(kOwn) : "DROP";
        const std::string options = "-A VPK-A " + ruleText(upTo(5), oneIn(3), to).given;
        rule = parsed(options).rule;
        const auto lines = chain == table.end() ? std::vector<filter::Line>() : chain->second.lines;
        const std::vector<Kind> kinds{Kind::appendRule, Kind::appendRule, Kind::insertRule,
                                      Kind::insertRule, Kind::deleteRule, Kind::deleteRule,
                                      Kind::flushChain, Kind::addChain,   Kind::deleteChain};
        change.kind = pick(kinds);
        if (change.kind == Kind::insertRule || change.kind == Kind::deleteRule) {
            if (lines.empty())
                return;
            change.handle = pick(lines).handle;
        }
        if (chain == table.end() && name == "INPUT")
            change.kind = Kind::addBaseChain;
        else if (name == "INPUT" && change.kind == Kind::deleteChain)
            return;
        if (oneIn(20)) {
            // A map of verdicts comes or goes.
            if (chain != table.end() && isOwn(name) && backend_->pinned.erase(name) == 0)
                backend_->pinned.insert(name);
            const std::string other = "OTHER2";
            backend_->make(other) || backend_->edit({Kind::deleteChain, &other, nullptr, 0});
            history_ += "foreign: pins or frees " + name + "\n";
            return;
        }
        makeEdit(change, name, describe(rule));
    }

    void makeEdit(const Change &change, const std::string &name, const std::string &text) {
        if (change.kind == Kind::deleteChain && backend_->pinned.count(name) > 0)
            return;
        const auto jumps = filter::jumpOf(text);
        if (change.kind == Kind::appendRule || change.kind == Kind::insertRule) {
            auto after = truth();
            if (after.count(name) > 0)
                after[name].lines.push_back({0, text});
            if (filter::jumpsTooFar(after) || (!jumps.empty() && after.count(jumps) == 0))
                return;
        }
        std::set<std::uint64_t> before;
        for (const filter::Line &line : linesOf(name))
            before.insert(line.handle);
        if (!backend_->edit(change))
            return;
        ++edits;
        history_ += "foreign: " + std::to_string(static_cast<int>(change.kind)) + " " + name + " " + text + "\n";
        const bool isOpaque = oneIn(3);
        for (const filter::Line &line : linesOf(name)) {
            if (isOpaque && before.count(line.handle) == 0)
                backend_->opaque.insert(line.handle);
        }
    }

    Settings settings_;
    scripted::Backend *backend_ = nullptr;
    int editsDuringPush_ = 0;
};

void run(const Settings &settings, std::size_t connections) {
    Simulated random(seeds::seedOfThisRun(), settings);
    random.run(seeds::stepsOfThisRun(connections));
    std::cout << random.commands << " commands, " << random.pushes << " pushes, " << random.edits << " edits, "
              << random.trees << " trees" << std::endl;
    EXPECT_EQ(random.trees > 0, settings.treeFrom > 0);
}

TEST(RandomConnectionsToATransactionalTable, ComeToWhatIptablesWouldComeTo) {
    Settings settings;
    settings.hasForeigners = settings.hasRefusals = settings.hasConflicts = false;
    run(settings, 120);
}

TEST(RandomConnectionsToATransactionalTable, LeaveRoomForForeignPrograms) {
    Settings settings;
    settings.hasRefusals = settings.hasConflicts = false;
    run(settings, 120);
}

TEST(RandomConnectionsToATransactionalTable, LoseOnlyWhatIsRefused) {
    Settings settings;
    settings.hasForeigners = settings.hasConflicts = false;
    run(settings, 120);
}

TEST(RandomConnectionsToATransactionalTable, ComeToTheSameWhenOthersAreFaster) { run(Settings(), 200); }

TEST(RandomConnectionsToATransactionalTable, ComeToTheSameWithTrees) {
    Settings settings;
    settings.treeFrom = 8;
    settings.hasForeigners = settings.hasRefusals = settings.hasConflicts = false;
    run(settings, 40);
}

TEST(RandomConnectionsToATransactionalTable, LoseOnlyWhatIsRefusedWithTreesToo) {
    Settings settings;
    settings.treeFrom = 8;
    settings.hasForeigners = false;
    run(settings, 40);
}

TEST(RandomConnectionsToATransactionalTable, NeverExceedTheirBoundWithTrees) {
    Settings settings;
    settings.treeFrom = 8;
    settings.limit = 60;
    settings.hasForeigners = settings.hasConflicts = settings.hasRefusals = false;
    run(settings, 40);
}

TEST(RandomConnectionsToATransactionalTable, NeverExceedTheirBound) {
    Settings settings;
    settings.limit = 25;
    settings.hasConflicts = settings.hasRefusals = false;
    run(settings, 120);
}

} // namespace
