// Random connections to a chain that grows and shrinks across its bound, with a foreign program at work, held against a
// list of what should be there.
#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "shared-kernel.h"
#include "support/random-seed.h"
#include "support/rule-lists.h"

namespace {

using namespace sharedkernel;
using rlv::Change;
using rlv::Rule;
using Kind = Change::Kind;
using Action = rlv::Command::Action;

const std::string kChain = "VPK-D";

struct Settings {
    bool hasForeigners = true;
    bool hasConflicts = true;
    bool hasMixtures = true;
    bool hasRestarts = true;
    std::size_t plainRules = 500; // for one of another target, where there are mixtures
};

class Random {
public:
    Random(unsigned seed, const Settings &settings) : settings_(settings), random_(seed) {
        for (const rulelists::Form &form : rulelists::forms()) {
            for (Rule &rule : rulelists::make(form, 40, seed)) {
                rule.target = {rlv::Target::Kind::drop, ""};
                pool_.push_back(known(rule));
                rule.target = {rlv::Target::Kind::accept, ""};
                known(rule);
            }
        }
        kernel_.beforeCommit = [this] {
            if (editsToCome_ > 0) {
                --editsToCome_;
                edit();
            }
        };
        restart();
    }

    void run(std::size_t steps) {
        for (std::size_t i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE("connection " + std::to_string(i));
            step();
            if (testing::Test::HasFailure())
                std::cout << history_ << std::endl;
        }
    }
    std::size_t trees = 0; // checks that met one
    std::size_t edits = 0;

private:
    std::size_t upTo(std::size_t most) { return random_() % (most + 1); }
    bool oneIn(std::size_t n) { return upTo(n - 1) == 0; }
    template <typename List> const auto &pick(const List &list) { return list[upTo(list.size() - 1)]; }

    void step() {
        history_.clear();
        if (settings_.hasRestarts && oneIn(15))
            restart();
        if (settings_.hasForeigners && oneIn(3)) {
            for (std::size_t i = upTo(3); i > 0; --i)
                edit();
        }
        if (settings_.hasConflicts && oneIn(5))
            editsToCome_ = upTo(3);
        if (settings_.hasConflicts && oneIn(12))
            kernel_.conflictsToCome = static_cast<int>(upTo(15));
        connect();
        editsToCome_ = 0;
        kernel_.conflictsToCome = 0;
        check();
    }

    // A new service, and a policy host that gives it all rules again.
    void restart() {
        if (settings_.hasRestarts)
            treeFrom_ = pick(std::vector<std::size_t>{0, 4, 8, 8, 8, 20});
        history_ += "restart with " + std::to_string(treeFrom_) + "\n";
        table_ = openTable(kernel_, treeFrom_);
        table_->open();
        if (kernel_.truth().chains.count(kChain) == 0)
            give(Action::makeChain);
        table_->push();
        table_->open();
        rebuild();
        EXPECT_TRUE(table_->push().lost.empty());
        table_->remember();
    }

    std::string known(const Rule &rule) {
        std::string text = rlv::describe(rule);
        rules_[text] = rule;
        return text;
    }

    void give(Action action, const std::string &rule = "") {
        const std::string options = std::to_string(static_cast<int>(action)) + " " + rule;
        history_ += options + "\n";
        rlv::Command command;
        command.action = action;
        command.chain = kChain;
        if (!rule.empty())
            command.rule = rules_.at(rule);
        EXPECT_EQ("", table_->apply({command}, options).message) << options;
    }

    void rebuild() {
        give(Action::flushChain);
        if (oneIn(2) && !isMixed())
            std::shuffle(wanted_.begin(), wanted_.end(), random_);
        for (const std::string &rule : wanted_)
            give(Action::appendRule, rule);
    }

    bool isMixed() const {
        return std::any_of(wanted_.begin(), wanted_.end(),
                           [](const std::string &rule) { return rule.find("ACCEPT") != std::string::npos; });
    }

    void connect() {
        table_->open();
        const bool begins = oneIn(25);
        if (begins)
            wanted_.clear();
        if (begins || oneIn(4))
            rebuild();
        const bool isGrowing = upTo(250) >= wanted_.size();
        for (std::size_t i = upTo(oneIn(4) ? 80 : 5); i > 0; --i) {
            if (isGrowing == !oneIn(4))
                append();
            else
                remove();
        }
        EXPECT_TRUE(table_->push().lost.empty());
    }

    void append() {
        std::string rule = pick(pool_);
        if (settings_.hasMixtures && oneIn(settings_.plainRules))
            rule.replace(rule.find("-j DROP"), 7, "-j ACCEPT");
        give(Action::appendRule, rule);
        wanted_.push_back(rule);
    }

    void remove() {
        if (wanted_.empty())
            return;
        const std::string rule = isMixed() && oneIn(2) ? accepting() : pick(wanted_);
        give(Action::deleteRule, rule);
        wanted_.erase(std::find(wanted_.begin(), wanted_.end(), rule));
    }

    std::string accepting() const {
        return *std::find_if(wanted_.begin(), wanted_.end(),
                             [](const std::string &rule) { return rule.find("ACCEPT") != std::string::npos; });
    }

    // A foreign program.
    void edit() {
        ++edits;
        const rlv::Ruleset truth = kernel_.truth();
        Texts names;
        for (const auto &[name, chain] : truth.chains)
            names.push_back(name);
        if (names.empty())
            return;
        const std::string name = pick(names);
        const Rule rule = rules_.at(pick(pool_));
        Change change{Kind::appendRule, &name, &rule, 0};
        const auto &rules = truth.chains.at(name).rules;
        switch (upTo(6)) {
        case 0:
            change.kind = Kind::flushChain;
            break;
        case 1:
            change.kind = Kind::deleteChain;
            break;
        case 2:
        case 3:
            if (rules.empty())
                return;
            change.kind = Kind::deleteRule;
            change.handle = pick(rules).handle;
            break;
        case 4:
            kernel_.make(pick(Texts{"OTHER", "VPK-D.1", "VPK-D.zz/zz", "VPK-D.zz/7"}));
            break;
        default:
            break;
        }
        const bool isMade = kernel_.edit(change);
        history_ += "foreign: " + std::to_string(static_cast<int>(change.kind)) + " " + name + " " +
                    rlv::describe(rule) + (isMade ? "\n" : " (refused)\n");
    }

    void check() {
        const auto report = table_->mend();
        ASSERT_EQ(report.problem, "");
        Texts expected = wanted_;
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(expected, rulesSeen(kernel_, kChain, treeFrom_));
        ASSERT_EQ(expected, rulesIn(kernel_, kChain));
        trees += subChainsIn(kernel_, kChain).empty() ? 0 : 1;
        if (isMixed())
            checkOrder();
        rlv::ServiceState state;
        table_->describe(state);
        // Others may have made one beside it that is called like an own one.
        const auto chain = std::find_if(state.chains.begin(), state.chains.end(),
                                        [](const rlv::ChainState &one) { return one.name == kChain; });
        ASSERT_NE(chain, state.chains.end());
        ASSERT_EQ(chain->rules, wanted_.size());
    }

    // What does not all do the same does it in its order.
    void checkOrder() {
        Texts standing;
        for (const Rule &rule : rulesMet(kernel_, kChain))
            standing.push_back(rlv::describe(rule));
        const auto isAccepting = [](const std::string &rule) { return rule.find("ACCEPT") != std::string::npos; };
        const auto partsOf = [&](const Texts &rules) {
            std::vector<Texts> parts(1);
            for (const std::string &rule : rules) {
                if (isAccepting(rule) != (!parts.back().empty() && isAccepting(parts.back().back())))
                    parts.emplace_back();
                parts.back().push_back(rule);
            }
            for (Texts &part : parts)
                std::sort(part.begin(), part.end());
            return parts;
        };
        ASSERT_EQ(partsOf(wanted_), partsOf(standing));
    }

    Settings settings_;
    std::mt19937 random_;
    Texts pool_;
    std::map<std::string, Rule> rules_; // by their texts
    scripted::Backend kernel_;
    std::unique_ptr<rlv::TransactionalTable> table_;
    std::size_t treeFrom_ = 8;
    std::size_t editsToCome_ = 0;
    Texts wanted_;
    std::string history_;
};

void run(const Settings &settings, std::size_t connections) {
    Random random(seeds::seedOfThisRun(), settings);
    random.run(seeds::stepsOfThisRun(connections));
    std::cout << random.trees << " trees, " << random.edits << " edits" << std::endl;
    EXPECT_GT(random.trees, 0U);
}

TEST(RandomConnectionsToATree, ComeToTheRulesThatWereAppended) {
    Settings settings;
    settings.hasForeigners = settings.hasConflicts = settings.hasMixtures = settings.hasRestarts = false;
    run(settings, 300);
}

TEST(RandomConnectionsToATree, KeepTheOrderWhereThereIsOne) {
    Settings settings;
    settings.hasForeigners = settings.hasConflicts = false;
    run(settings, 300);
}

TEST(RandomConnectionsToATree, KeepTheOrderWhereOthersAreFaster) {
    Settings settings;
    settings.hasForeigners = false;
    settings.plainRules = 60;
    run(settings, 300);
}

TEST(RandomConnectionsToATree, PutBackWhatOthersChange) {
    Settings settings;
    settings.hasConflicts = false;
    run(settings, 300);
}

TEST(RandomConnectionsToATree, ComeToTheSameWhenOthersAreFaster) { run(Settings(), 300); }

} // namespace
