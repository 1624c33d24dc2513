// What iptables' commands make of a filter table, worked out on plain lists of rule texts.
#ifndef TESTS_SUPPORT_FILTER_ORACLE_H
#define TESTS_SUPPORT_FILTER_ORACLE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace filter {

// A rule as "iptables -S" shows it, without "-A chain ", and the handle by which the kernel knows it. Those that the
// kernel has not seen yet have a handle from kFirstNew on.
struct Line {
    std::uint64_t handle = 0;
    std::string text;
};
constexpr std::uint64_t kFirstNew = std::uint64_t{1} << 48;

struct Chain {
    bool isBase = false;
    bool isPinned = false; // something other than a rule refers to it
    std::vector<Line> lines;
};
using Table = std::map<std::string, Chain>;

// "VPK-A" for "-i lo -j VPK-A"; empty for a rule that jumps nowhere.
std::string jumpOf(const std::string &text);

// True when packets could come to a chain over more jumps than the kernel follows: it takes no such table.
bool jumpsTooFar(const Table &table);

// "-A chain" with one rule for each address; the other commands have none but -D.
struct Command {
    char action = 'F';
    std::string chain;
    std::vector<std::string> rules;
    std::string options; // the name under which it is lost
};

struct Reply {
    int code = 0;
    std::string message;
};

// What a kernel never takes, though it looks right.
struct Refusals {
    std::set<std::string> rules;    // texts
    std::set<std::string> makings;  // chains
    std::set<std::string> removals; // chains
};

// One connection's commands on a table, which others may change before they are sent.
class Connection {
public:
    // `limit` is on rules and chains together.
    explicit Connection(Table table, std::size_t limit) : base_(table), view_(std::move(table)), limit_(limit) {}

    // The table as it would be if everything were sent.
    const Table &view() const { return view_; }
    bool hasUnsent() const { return hasUnsent_; }

    Reply apply(const Command &command);

    struct Outcome {
        Table table;
        std::vector<std::string> lost;
    };
    // What comes of sending to a table that is `now` this. The connection goes on with it.
    Outcome push(const Table &now, const Refusals &refusals = Refusals());
    // What is forgotten. The connection goes on with the table that it knows.
    std::vector<std::string> discard();

private:
    // A command that is still to be sent, or one rule of it.
    struct Entry {
        std::uint64_t number = 0;
        char action = 'F';
        std::string chain;
        Line rule;
        std::string options;
    };

    Reply carryOut(const Command &command, std::uint64_t number);
    Reply append(const Command &command, std::uint64_t number);
    Reply deleteRules(const Command &command, std::uint64_t number);
    void forget(const std::string &chain, const std::string &actions);
    void forgetAppended(std::uint64_t handle);
    std::size_t size() const;
    void leaveOutRefused(const Table &now, const Refusals &refusals, std::vector<std::string> &lost);
    void leaveOut(const std::set<std::uint64_t> &numbers, std::vector<std::string> &lost);
    void replay(const Table &now, std::vector<std::string> &lost);
    void replay(const Table &now, const std::vector<Entry> &entries, std::vector<std::string> &lost);

    Table base_;
    Table view_;
    std::size_t limit_;
    std::vector<Entry> log_;
    bool hasUnsent_ = false;
    std::uint64_t lastNumber_ = 0;
    std::uint64_t nextHandle_ = kFirstNew;
};

} // namespace filter

#endif
