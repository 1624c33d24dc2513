#include "support/filter-oracle.h"

#include <algorithm>
#include <utility>

namespace filter {

namespace {

// A packet may be 16 chains deep: the one that it came in by, and 15 jumps.
constexpr int kDeepest = 15;

const Reply kNoChain{1, "iptables: No chain/target/match by that name."};
const Reply kChainExists{1, "iptables: Chain already exists."};
const Reply kNoRule{1, "iptables: Bad rule (does a matching rule exist in that chain?)."};

Reply noTarget(const std::string &chain) { return {2, "iptables: Chain '" + chain + "' does not exist"}; }
Reply chainInUse(const std::string &chain) {
    return {4, "iptables: CHAIN_DEL failed (Device or resource busy): chain " + chain};
}
Reply tooManyLinks(const std::string &chain) {
    return {4, "iptables: RULE_APPEND failed (Too many links): rule in chain " + chain};
}

bool isBuiltIn(const std::string &chain) { return chain == "INPUT" || chain == "OUTPUT"; }

bool isReferenced(const Table &table, const std::string &chain) {
    return std::any_of(table.begin(), table.end(), [&](const auto &entry) {
        return std::any_of(entry.second.lines.begin(), entry.second.lines.end(),
                           [&](const Line &line) { return jumpOf(line.text) == chain; });
    });
}

bool sameTables(const Table &left, const Table &right) {
    const auto sameLines = [](const Line &one, const Line &other) { return one.handle == other.handle; };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [&](const auto &one, const auto &other) {
        return one.first == other.first && std::equal(one.second.lines.begin(), one.second.lines.end(),
                                                      other.second.lines.begin(), other.second.lines.end(), sameLines);
    });
}

} // namespace

std::string jumpOf(const std::string &text) {
    const auto mark = std::max(text.rfind("-j ") + 1, text.rfind("-g ") + 1); // 0: not there
    if (mark == 0)
        return "";
    const std::string target = text.substr(mark + 2, text.find(' ', mark + 2) - mark - 2);
    const std::set<std::string> verdicts{"ACCEPT", "DROP", "LOG", "RETURN", "REJECT"};
    return verdicts.count(target) > 0 ? "" : target;
}

bool jumpsTooFar(const Table &table) {
    std::set<std::string> reached;
    for (const auto &[name, chain] : table) {
        if (chain.isBase)
            reached.insert(name);
    }
    for (int depth = 0; depth <= kDeepest && !reached.empty(); ++depth) {
        std::set<std::string> next;
        for (const std::string &name : reached) {
            const auto chain = table.find(name);
            for (const Line &line : chain == table.end() ? std::vector<Line>() : chain->second.lines)
                next.insert(jumpOf(line.text));
        }
        next.erase("");
        reached = std::move(next);
    }
    return !reached.empty();
}

Reply Connection::apply(const Command &command) {
    Reply reply = carryOut(command, ++lastNumber_);
    hasUnsent_ = hasUnsent_ || reply.code == 0;
    return reply;
}

Reply Connection::carryOut(const Command &command, std::uint64_t number) {
    const std::string &name = command.chain;
    if (command.action == 'A')
        return append(command, number);
    if (command.action == 'D')
        return deleteRules(command, number);
    const auto chain = view_.find(name);
    if (command.action == 'N' && chain != view_.end())
        return kChainExists;
    if (command.action == 'N' && size() >= limit_)
        return {4, "iptables: too many rules: the chains may come to " + std::to_string(limit_) + " together"};
    if (command.action != 'N' && chain == view_.end())
        return kNoChain;
    if (command.action == 'X' && (!chain->second.lines.empty() || chain->second.isPinned || isReferenced(view_, name)))
        return chainInUse(name);
    if (command.action == 'F') {
        forget(name, "AD");
        chain->second.lines.clear();
        const auto isFlush = [&](const Entry &entry) { return entry.action == 'F' && entry.chain == name; };
        if (std::any_of(log_.begin(), log_.end(), isFlush))
            return {};
    } else if (command.action == 'N') {
        forget(name, "X");
        view_[name];
    } else {
        // A chain that the kernel does not know leaves no trace.
        forget(name, base_.count(name) == 0 ? "NFAD" : "N");
        view_.erase(name);
        if (base_.count(name) == 0)
            return {};
    }
    log_.push_back({number, command.action, name, Line{}, command.options});
    return {};
}

Reply Connection::append(const Command &command, std::uint64_t number) {
    const std::string target = jumpOf(command.rules.front());
    if (!target.empty() && view_.count(target) == 0)
        return noTarget(target);
    const bool isNew = view_.count(command.chain) == 0;
    if (isNew && !isBuiltIn(command.chain))
        return kNoChain;
    if (size() + command.rules.size() + (isNew ? 1 : 0) > limit_)
        return {4, "iptables: too many rules: the chains may come to " + std::to_string(limit_) + " together"};
    Table after = view_;
    Chain &chain = after[command.chain];
    chain.isBase = chain.isBase || isNew;
    std::vector<Entry> entries;
    for (const std::string &text : command.rules) {
        chain.lines.push_back({nextHandle_++, text});
        entries.push_back({number, 'A', command.chain, chain.lines.back(), command.options});
    }
    if (!target.empty() && jumpsTooFar(after))
        return tooManyLinks(command.chain);
    view_ = std::move(after);
    log_.insert(log_.end(), entries.begin(), entries.end());
    return {};
}

Reply Connection::deleteRules(const Command &command, std::uint64_t number) {
    const std::string target = jumpOf(command.rules.front());
    if (!target.empty() && view_.count(target) == 0)
        return noTarget(target);
    const auto chain = view_.find(command.chain);
    if (chain == view_.end())
        return kNoRule;
    std::vector<Line> left = chain->second.lines;
    std::vector<Line> gone;
    for (const std::string &text : command.rules) {
        const auto first = std::find_if(left.begin(), left.end(), [&](const Line &line) { return line.text == text; });
        if (first == left.end())
            return kNoRule;
        gone.push_back(*first);
        left.erase(first);
    }
    chain->second.lines = std::move(left);
    for (const Line &line : gone) {
        if (line.handle >= kFirstNew)
            forgetAppended(line.handle);
        else
            log_.push_back({number, 'D', command.chain, line, command.options});
    }
    return {};
}

void Connection::forget(const std::string &chain, const std::string &actions) {
    const auto isMeant = [&](const Entry &entry) {
        return entry.chain == chain && actions.find(entry.action) != std::string::npos;
    };
    log_.erase(std::remove_if(log_.begin(), log_.end(), isMeant), log_.end());
}

void Connection::forgetAppended(std::uint64_t handle) {
    const auto isMeant = [&](const Entry &entry) { return entry.action == 'A' && entry.rule.handle == handle; };
    log_.erase(std::remove_if(log_.begin(), log_.end(), isMeant), log_.end());
}

std::size_t Connection::size() const {
    std::size_t sum = 0;
    for (const auto &[name, chain] : view_)
        sum += 1 + (isBuiltIn(name) || name.rfind("VPK-", 0) == 0 ? chain.lines.size() : 0);
    return sum;
}

void Connection::leaveOut(const std::set<std::uint64_t> &numbers, std::vector<std::string> &lost) {
    std::uint64_t last = 0;
    for (const Entry &entry : log_) {
        if (numbers.count(entry.number) > 0 && std::exchange(last, entry.number) != entry.number)
            lost.push_back(entry.options);
    }
    const auto isMeant = [&](const Entry &entry) { return numbers.count(entry.number) > 0; };
    log_.erase(std::remove_if(log_.begin(), log_.end(), isMeant), log_.end());
}

void Connection::leaveOutRefused(const Table &now, const Refusals &refusals, std::vector<std::string> &lost) {
    std::set<std::string> unmade;
    std::set<std::uint64_t> numbers;
    for (const Entry &entry : log_) {
        const bool stands = now.count(entry.chain) > 0;
        if (entry.action == 'N' && !stands && refusals.makings.count(entry.chain) > 0) {
            unmade.insert(entry.chain);
            numbers.insert(entry.number);
        }
        if (entry.action == 'X' && stands && refusals.removals.count(entry.chain) > 0)
            numbers.insert(entry.number);
    }
    for (const Entry &entry : log_) {
        const bool isIn = unmade.count(entry.chain) > 0;
        const bool isBad = refusals.rules.count(entry.rule.text) > 0 || unmade.count(jumpOf(entry.rule.text)) > 0;
        if (entry.action == 'A' && (isIn || isBad))
            numbers.insert(entry.number);
    }
    leaveOut(numbers, lost);
}

// In full where the outcome is within the limit; else what does not fit on the way there is lost.
void Connection::replay(const Table &now, std::vector<std::string> &lost) {
    const auto entries = std::exchange(log_, {});
    std::vector<std::string> made; // which stay when the rule that made them is gone
    for (const auto &[name, chain] : view_) {
        if (isBuiltIn(name) && base_.count(name) == 0 && chain.lines.empty())
            made.push_back(name);
    }
    const std::size_t limit = std::exchange(limit_, SIZE_MAX);
    std::vector<std::string> lostNow;
    replay(now, entries, lostNow);
    limit_ = limit;
    if (size() > limit_) {
        lostNow.clear();
        replay(now, entries, lostNow);
    }
    for (const std::string &name : made) {
        if (size() < limit_)
            view_[name].isBase = true;
    }
    lost.insert(lost.end(), lostNow.begin(), lostNow.end());
}

// What others did may have reached the aim of a command already.
void Connection::replay(const Table &now, const std::vector<Entry> &entries, std::vector<std::string> &lost) {
    log_.clear();
    base_ = view_ = now;
    for (auto next = entries.begin(); next != entries.end();) {
        const Entry first = *next;
        std::vector<std::string> rules;
        for (; next != entries.end() && next->number == first.number; ++next)
            rules.push_back(next->rule.text);
        if (first.action == 'D') {
            for (const std::string &text : rules)
                carryOut({'D', first.chain, {text}, first.options}, first.number);
            continue;
        }
        const Reply reply = carryOut({first.action, first.chain, rules, first.options}, first.number);
        const bool isMissed = reply.code == 4 || (reply.code != 0 && first.action == 'A');
        if (isMissed)
            lost.push_back(first.options);
    }
}

Connection::Outcome Connection::push(const Table &now, const Refusals &refusals) {
    if (!hasUnsent_)
        return {now, {}};
    Outcome outcome;
    const bool isCurrent = sameTables(now, base_);
    if (!isCurrent)
        replay(now, outcome.lost);
    const std::size_t before = log_.size();
    leaveOutRefused(now, refusals, outcome.lost);
    if (log_.size() != before)
        replay(now, outcome.lost);
    outcome.table = view_;
    log_.clear();
    hasUnsent_ = false;
    return outcome;
}

std::vector<std::string> Connection::discard() {
    std::set<std::uint64_t> numbers;
    for (const Entry &entry : log_)
        numbers.insert(entry.number);
    std::vector<std::string> lost;
    leaveOut(numbers, lost);
    view_ = base_;
    hasUnsent_ = false;
    return lost;
}

} // namespace filter
