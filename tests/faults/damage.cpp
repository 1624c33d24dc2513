// damage: bits are flipped and files cut, emptied, filled, exchanged and taken away while the host does not run: both
// rule databases, journals and whatever else lies beside them, statistics, status, configuration, outbox. Then it must
// come up, with the rules of the best file that is left, or say what is lost.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <utility>

#include "faults/arguments.h"
#include "faults/damage-judge.h"
#include "faults/installation.h"
#include "faults/operations.h"
#include "faults/tracer.h"
#include "faults/workers.h"
#include "support/sqlite-file.h"
#include "support/whole-system.h"

namespace {

using namespace faults;
using children::Clock;
namespace fs = std::filesystem;

constexpr const char *kStates = "/run/states";
constexpr const char *kStatusDatabase = "/opt/data/vpk/db/.status.db";
constexpr const char *kInterval = "7777";

// What the files were before the damage.
struct Before {
    std::string folder;
    LawfulStates main;
    LawfulStates backup;
};

std::vector<Before> *states = nullptr;

void requireDone(const char *command, const std::string &data) {
    const auto answer = ask("Host::executeCommand", {command, data});
    if (!answer || answer->told)
        throw std::runtime_error(std::string(command) + ": " + (answer ? answer->text : "no answer"));
}

// The collector is no child of ours, and outlives its host.
void killHostAndCollector(Installation &installation) {
    installation.killHost();
    for (const pid_t process : wholesystem::processesOf("vpkd"))
        ::kill(process, SIGKILL);
}

void keep(const std::string &name, const LawfulStates &main, const LawfulStates &backup) {
    const std::string folder = std::string(kStates) + "/" + name;
    fs::create_directories(kStates);
    fs::copy(kData, folder, fs::copy_options::recursive);
    states->push_back({folder, main, backup});
}

void putBack(const Before &before) {
    ::unlink(wholesystem::kMarker);
    fs::remove_all(kData);
    fs::copy(before.folder, kData, fs::copy_options::recursive);
}

void requireUp(Installation &installation) {
    if (!installation.bringServiceUp() || !installation.bringHostUp())
        throw std::runtime_error("the programs do not start: " + wholesystem::contentOf("/run/vpkd.out"));
}

Rows with(Rows rows, const Row &row) {
    rows.push_back(row);
    return rows;
}

// The host dies at the n-th write of a rule: the journal is there, and hot.
void keepStatesWithAJournal(const Row &row) {
    for (unsigned at = 1; at <= 40; ++at) {
        Installation installation(true);
        putBack(states->front());
        requireUp(installation);
        Tracer tracer;
        unsigned seen = 0;
        tracer.attach(installation.host(), [&](const SystemCall &call) {
            return call.number == SYS_pwrite64 && ++seen == at ? Fate{Fate::deadly, 0} : Fate{};
        });
        static_cast<void>(ask("Host::executeCommand", {"ApplyDenyRules", "tcp:198.51.100.1:81:in"}));
        tracer.detach();
        if (seen < at)
            return;
        installation.killAll();
        const Rows after = with(rowsBefore(), row);
        keep("journal-" + std::to_string(at), {rowsBefore(), after}, {rowsBefore(), after});
    }
}

void makeStates() {
    const Row row{"tcp", "198.51.100.1", "81", 1, 0};
    fs::remove_all(kStates);
    {
        Installation first(true);
        requireUp(first);
        requireDone("ApplyAllowRules", kAllowedBefore);
        requireDone("ApplyDenyRules", kDeniedBefore);
        requireDone("StatCollectorPolicy", std::string("{\"send_report_interval\":\"") + kInterval + "\"}");
        requireDone("SendReport", "");
        requireDone("EnableStatCollector", "");
        const auto collected = [] { return fs::exists(wholesystem::kStatisticsDatabase); };
        if (!children::waitUntil(collected, Clock::now() + std::chrono::seconds(10)))
            throw std::runtime_error("the collector makes no database");
        killHostAndCollector(first);
        keep("collecting", {rowsBefore()}, {rowsBefore()});
        requireUp(first);
        requireDone("DisableStatCollector", "");
        killHostAndCollector(first);
        keep("quiet", {rowsBefore()}, {rowsBefore()});
        std::swap((*states)[0], (*states)[1]);
        const std::string old = sqlitefile::content(wholesystem::kRuleBackup);
        requireUp(first);
        requireDone("ApplyDenyRules", "tcp:198.51.100.1:81:in");
        first.killHost();
        keep("fuller", {with(rowsBefore(), row)}, {with(rowsBefore(), row)});
        // As after a death just before the copy was made.
        sqlitefile::writeFile(wholesystem::kRuleBackup, old);
        keep("late-backup", {with(rowsBefore(), row)}, {rowsBefore()});
    }
    keepStatesWithAJournal(row);
}

Installation *running = nullptr; // of this worker, with its service

void prepareWorker() {
    children::prepare();
    ::umask(022);
    states = new std::vector<Before>;
    makeStates();
    running = new Installation(false);
    if (!running->bringServiceUp())
        throw std::runtime_error("rlvd does not start: " + wholesystem::contentOf("/run/rlvd.out"));
}

class Vandal {
public:
    explicit Vandal(unsigned seed) : random_(seed) {}

    const Before &chooseState() {
        // Those without a journal are few, and what devices have.
        return (*states)[pick(2) == 0 ? pick(4) : pick(states->size())];
    }

    // What was done, in words; the files that were touched are in `touched`.
    std::string damage() {
        std::string text;
        const unsigned kind = pick(20);
        if (kind == 0)
            return "nothing"; // the judge's own proof: all is well then, and nothing is said
        if (kind <= 6)
            return damageOne(wholesystem::kRuleDatabase) + damageOne(wholesystem::kRuleBackup);
        const unsigned count = kind <= 16 ? 1 : 2 + pick(2);
        for (unsigned i = 0; i < count; ++i) {
            const auto all = files();
            text += damageOne(pick(3) == 0 ? wholesystem::kRuleDatabase : all[pick(all.size())]);
        }
        return text;
    }

    std::set<std::string> touched;

private:
    std::size_t pick(std::size_t below) { return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_); }
    unsigned pick(unsigned below) { return static_cast<unsigned>(pick(std::size_t{below})); }
    unsigned pick(int below) { return pick(static_cast<unsigned>(below)); }

    static std::vector<std::string> files() {
        std::vector<std::string> all;
        for (const auto &entry : fs::recursive_directory_iterator(kData)) {
            if (entry.is_regular_file() && entry.path().extension() != ".lock")
                all.push_back(entry.path());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    std::string flip(std::string &bytes) {
        if (bytes.empty())
            return {};
        const unsigned bits = 1 + (pick(3) == 0 ? pick(16) : 0);
        std::string text = "flip";
        for (unsigned i = 0; i < bits; ++i) {
            const std::size_t at = pick(bytes.size());
            bytes[at] = static_cast<char>(bytes[at] ^ (1 << pick(8)));
            text += " " + std::to_string(at);
        }
        return text;
    }

    std::string overwrite(std::string &bytes, bool zeros) {
        const std::size_t from = bytes.empty() ? 0 : pick(bytes.size());
        const std::size_t count = pick(4) == 0 ? bytes.size() : pick(std::size_t{4096});
        for (std::size_t at = from; at < bytes.size() && at < from + count; ++at)
            bytes[at] = zeros ? '\0' : static_cast<char>(pick(256));
        return (zeros ? "zero " : "fill ") + std::to_string(from) + "+" + std::to_string(count);
    }

    // Another file of the same folder, or an older and sound state of this one.
    std::string exchange(const std::string &path) {
        const auto all = files();
        const std::string &other = all[pick(all.size())];
        const std::string mine = sqlitefile::content(path);
        sqlitefile::writeFile(path, sqlitefile::content(other));
        sqlitefile::writeFile(other, mine);
        touched.insert(other);
        return "exchange with " + other;
    }

    std::string damageOne(const std::string &path) {
        touched.insert(path);
        std::string bytes = sqlitefile::content(path);
        std::string text;
        const unsigned kind = pick(20);
        if (kind < 9)
            text = flip(bytes);
        else if (kind < 11)
            bytes.resize(pick(bytes.size() + 1)), text = "cut to " + std::to_string(bytes.size());
        else if (kind < 12)
            bytes.clear(), text = "empty";
        else if (kind < 14)
            text = overwrite(bytes, true);
        else if (kind < 16)
            text = overwrite(bytes, false);
        else if (kind < 17)
            bytes += std::string(1 + pick(5000), static_cast<char>(pick(256))), text = "longer";
        // No two files of one other time: nobody could tell that from what was.
        else if (kind < 18 && !std::exchange(wentBack_, true))
            bytes = sqlitefile::content((*states)[pick(4)].folder + path.substr(std::string(kData).size())),
            text = "of another time";
        else if (kind < 19)
            return fs::path(path).filename().string() + ": " + exchange(path) + "; ";
        else
            return fs::remove(path), fs::path(path).filename().string() + ": removed; ";
        sqlitefile::writeFile(path, bytes);
        return fs::path(path).filename().string() + ": " + text + "; ";
    }

    bool wentBack_ = false;
    std::mt19937 random_;
};

// Of what concerns the rules: their files, or what the plugin says of them. That the backup differed tells something
// only of a database that was left in the middle of a change, of which no digest knows what it was like.
bool tellsOfDamage(const std::string &log, const std::string &status, bool inTheMiddle) {
    std::istringstream lines(log + "\n" + status);
    for (std::string line; std::getline(lines, line);) {
        for (const char *word : {"can't open and prepare db", "can't restore backup db", "/.firewall.db"}) {
            if (line.find(word) != std::string::npos &&
                (inTheMiddle || line.find(".firewall.db-backup: differed from") == std::string::npos))
                return true;
        }
    }
    return false;
}

std::string beside(const std::set<std::string> &touched, const std::string &status) {
    const auto wasTouched = [&touched](const std::string &path) {
        return std::any_of(touched.begin(), touched.end(),
                           [&path](const std::string &each) { return each.compare(0, path.size(), path) == 0; });
    };
    if (!wasTouched(kStatusDatabase) && status.find("\"stored\":1") == std::string::npos)
        return "stored status: " + status;
    // A collector that runs rewrites the file in place, so that it is empty for a moment.
    const auto asSet = [] {
        return wholesystem::contentOf(wholesystem::kConfiguration).find(kInterval) != std::string::npos;
    };
    if (!wasTouched(wholesystem::kConfiguration) && !children::waitUntil(asSet, Clock::now() + std::chrono::seconds(1)))
        return "settings: " + wholesystem::contentOf(wholesystem::kConfiguration);
    return {};
}

Result attempt(unsigned seed) {
    Vandal vandal(seed);
    const Before &before = vandal.chooseState();
    killHostAndCollector(*running);
    children::forgetEnded();
    if (!running->bringServiceUp())
        throw std::runtime_error("rlvd does not start again");
    for (const char *log : {wholesystem::kHostLog, "/run/vpkd.out"})
        ::unlink(log);
    putBack(before);
    const std::string what = vandal.damage();
    Damaged damaged;
    damaged.main = before.main;
    damaged.backup = before.backup;
    damaged.mainSeen = readStored(wholesystem::kRuleDatabase);
    damaged.backupSeen = readStored(wholesystem::kRuleBackup);
    damaged.up = running->bringHostUp();
    const auto status = damaged.up ? ask("Host::status") : std::nullopt;
    const std::string text = status ? status->value : std::string();
    const std::string log = wholesystem::contentOf(wholesystem::kHostLog);
    const bool inTheMiddle = before.folder.find("journal") != std::string::npos;
    damaged.said = tellsOfDamage(log, text, inTheMiddle);
    damaged.inTheEnd = observe();
    damaged.unharmed = beside(vandal.touched, text);
    const auto judgement = judgeDamage(damaged);
    const std::string where = fs::path(before.folder).filename().string() + ": " + what;
    if (judgement.violation != nullptr)
        return {Class::violated, judgement.violation,
                where + judgement.text + " (main then: " + textOf(damaged.mainSeen) +
                    ", backup: " + textOf(damaged.backupSeen) + ") " + wholesystem::contentOf("/run/vpkd.out")};
    if (what == "nothing" && damaged.said && !inTheMiddle)
        return {Class::violated, "said without cause", where};
    return {Class::held, damaged.said ? "said, and up" : "up, nothing to say", ""};
}

} // namespace

int main(int argc, char **argv) try {
    Arguments arguments(argc, argv);
    const auto seed = static_cast<unsigned>(arguments.number("--seed", 1));
    const auto only = arguments.all("--only");
    const auto count = only.empty() ? static_cast<std::size_t>(arguments.number("--states", 6000)) : only.size();
    const auto seedOf = [&](std::size_t index) {
        return only.empty() ? seed * 100'000 + static_cast<unsigned>(index)
                            : static_cast<unsigned>(std::stoul(only[index]));
    };
    if (!canTrace()) {
        std::puts("[  SKIPPED ] system calls cannot be changed on this processor");
        return 0;
    }
    const Workers workers{static_cast<unsigned>(arguments.number("--workers", 2)),
                          static_cast<double>(arguments.number("--seconds", 0))};
    const auto results =
        runSpread(count, workers, prepareWorker, [&](std::size_t index) { return attempt(seedOf(index)); });
    return report(
        "damage", results, [&](std::size_t index) { return std::to_string(seedOf(index)); },
        arguments.has("--verbose"));
} catch (const std::exception &error) {
    std::fprintf(stderr,
                 "damage: %s\ndamage [--seed N] [--states N] [--workers N] [--seconds N] [--verbose]"
                 " [--only SEED]…\n",
                 error.what());
    return 2;
}
