// power-cuts: the power goes at a write, or just when a change has been acknowledged, on a real ext4; and what was
// acknowledged must be there, and the databases sound, when the device starts again.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "faults/arguments.h"
#include "faults/disk.h"
#include "faults/installation.h"
#include "faults/judge.h"
#include "faults/tracer.h"
#include "faults/workers.h"
#include "support/sqlite-file.h"
#include "support/whole-system.h"

namespace {

using namespace faults;
using children::Clock;

constexpr const char *kTemplate = "/run/empty-disk";
constexpr const char *kImage = "/run/disk";
constexpr const char *kCut = "/run/disk-at-the-cut";
constexpr const char *kMount = "/opt/data";
constexpr std::chrono::seconds kPatience{30};

// All that a caller can have been promised.
struct Promise {
    Rows rows;
    int status = 1;
    std::string interval; // empty: never set
};

struct Step {
    std::string text;
    const char *method = "Host::executeCommand";
    std::vector<std::string> arguments;
    std::vector<Promise> lawful; // from before the step to after it
};

Row rowOf(unsigned number, bool allowed) {
    return {"tcp", "198.51.100." + std::to_string(number % 250), std::to_string(1000 + number), 1, allowed ? 1 : 0};
}

std::string listOf(const Row &row) { return row.protocol + ":" + row.domain + ":" + row.port + ":in"; }

// Makes steps one after another, each from what the one before has promised.
class Story {
public:
    explicit Story(std::mt19937 &random) : random_(random) {}

    Step next() {
        Step step;
        step.lawful = {now_};
        const unsigned kind = now_.status == 0 ? 7 : pick(10);
        if (kind < 4)
            apply(step, 1);
        else if (kind < 5)
            apply(step, 3);
        else if (kind < 6)
            turn(step);
        else if (kind < 7)
            flush(step);
        else if (kind < 8)
            setStatus(step);
        else
            setInterval(step);
        now_ = step.lawful.back();
        return step;
    }

private:
    unsigned pick(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(random_); }

    void command(Step &step, const std::string &name, const std::string &data) {
        step.text = name + " " + data;
        step.arguments = {name, data};
    }

    void apply(Step &step, unsigned count) {
        const bool allowed = pick(2) == 0;
        std::string list;
        for (unsigned i = 0; i < count; ++i) {
            const Row row = rowOf(++made_, allowed);
            list += (list.empty() ? "" : ";") + listOf(row);
            Promise promise = step.lawful.back();
            promise.rows.push_back(row);
            step.lawful.push_back(promise);
        }
        command(step, allowed ? "ApplyAllowRules" : "ApplyDenyRules", list);
    }

    void turn(Step &step) {
        if (now_.rows.empty())
            return apply(step, 1);
        Promise promise = now_;
        Row &row = promise.rows[pick(static_cast<unsigned>(promise.rows.size()))];
        row.isAllowed = 1 - row.isAllowed;
        step.lawful.push_back(promise);
        command(step, row.isAllowed != 0 ? "ApplyAllowRules" : "ApplyDenyRules", listOf(row));
    }

    void flush(Step &step) {
        const int kind = static_cast<int>(pick(2));
        Promise promise = now_;
        promise.rows.erase(std::remove_if(promise.rows.begin(), promise.rows.end(),
                                          [kind](const Row &row) { return row.isAllowed == kind; }),
                           promise.rows.end());
        step.lawful.push_back(promise);
        command(step, kind == 1 ? "FlushAllowRules" : "FlushDenyRules", "");
    }

    // Disabled, the plugin refuses all else: next() enables it again.
    void setStatus(Step &step) {
        Promise promise = now_;
        promise.interval.clear(); // the plugin writes back what it read when it was made
        step.lawful.push_back(promise);
        promise.status = 1 - promise.status;
        step.lawful.push_back(promise);
        step.method = "Host::setStatus";
        step.arguments = {std::to_string(promise.status)};
        step.text = "setStatus " + step.arguments[0];
    }

    void setInterval(Step &step) {
        Promise promise = now_;
        promise.interval = std::to_string(3600 + pick(10000));
        step.lawful.push_back(promise);
        command(step, "StatCollectorPolicy", "{\"send_report_interval\":\"" + promise.interval + "\"}");
    }

    std::mt19937 &random_;
    Promise now_;
    unsigned made_ = 0;
};

bool writesSomething(long call) {
    switch (call) {
    case SYS_write:
    case SYS_pwrite64:
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_ftruncate:
    case SYS_openat:
#ifdef SYS_unlink
    case SYS_unlink:
    case SYS_rename:
#endif
    case SYS_unlinkat:
    case SYS_renameat:
    case SYS_renameat2:
        return true;
    default:
        return false;
    }
}

std::string settingIn(const std::string &document, const std::string &name) {
    const auto at = document.find('"' + name + '"');
    if (at == std::string::npos)
        return {};
    const auto first = document.find('"', document.find(':', at)) + 1;
    return document.substr(first, document.find('"', first) - first);
}

// What is promised where nothing was ever acknowledged is what a device has that was never used.
bool keeps(const Promise &promise, const Stored &rules, int status, const std::string &interval) {
    const bool noneYet = promise.rows.empty() && !rules.problem.empty();
    return (noneYet || (rules.problem.empty() && rules.rows == sorted(promise.rows))) && status == promise.status &&
           (promise.interval.empty() || interval == promise.interval);
}

int storedStatus() {
    const auto answer = ask("Host::status");
    if (!answer || answer->told)
        throw std::runtime_error("no status: " + (answer ? answer->text : std::string("no answer")));
    const auto at = answer->value.find("\"stored\":");
    // The first one is of the rules where it opens an object.
    for (auto from = at; from != std::string::npos; from = answer->value.find("\"stored\":", from + 1)) {
        const char digit = answer->value[from + 9];
        if (digit != '{')
            return digit - '0';
    }
    throw std::runtime_error("no stored status in " + answer->value);
}

// What has happened before the power goes.
class Session {
public:
    explicit Session(unsigned seed) : random_(seed), story_(random_) {
        std::filesystem::copy_file(kTemplate, kImage, std::filesystem::copy_options::overwrite_existing);
        disk_ = std::make_unique<Disk>(kImage, kMount);
        installation_.killAll();
        if (!installation_.bringServiceUp() || !installation_.bringHostUp())
            throw std::runtime_error("the programs do not start: " + wholesystem::contentOf("/run/vpkd.out"));
    }

    // Leaves the image in kCut. The promises are what may be found then.
    std::vector<Promise> cut(std::string &text) {
        const unsigned before = pick(5);
        for (unsigned i = 0; i < before; ++i)
            carryOut(story_.next(), text);
        const Step last = story_.next();
        const bool acknowledged = pick(2) == 0;
        const unsigned at = 1 + pick(70);
        text += acknowledged ? "[" : "[cut at write " + std::to_string(at) + " of: ";
        const bool wasCut = !acknowledged && cutWithin(last, at, text);
        if (acknowledged)
            carryOut(last, text);
        if (!wasCut)
            disk_->copyTo(kCut);
        text += wasCut ? "]" : "] cut";
        installation_.killAll();
        disk_.reset();
        return wasCut ? last.lawful : std::vector<Promise>{last.lawful.back()};
    }

private:
    unsigned pick(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(random_); }

    static std::unique_ptr<Call> begin(const Step &step) { return std::make_unique<Call>(step.method, step.arguments); }

    void wait(const Call &call, const Step &step) {
        if (!children::waitUntil([&call] { return call.over(); }, Clock::now() + kPatience))
            throw std::runtime_error("no end of " + step.text);
        if (const Answer answer = call.answer(); answer.told)
            throw std::runtime_error(step.text + ": " + answer.text);
    }

    void carryOut(const Step &step, std::string &text) {
        text += step.text + "; ";
        if (pick(4) == 0)
            disk_->flush();
        wait(*begin(step), step);
    }

    bool cutWithin(const Step &step, unsigned at, std::string &text) {
        text += step.text;
        const unsigned flushAt = pick(3) == 0 ? 1 + pick(at) : 0;
        unsigned seen = 0;
        bool done = false;
        Tracer tracer;
        tracer.attach(installation_.host(), [&](const SystemCall &call) {
            if (done || !writesSomething(call.number))
                return Fate{};
            ++seen;
            if (seen == flushAt)
                disk_->flush();
            if (seen == at) {
                disk_->copyTo(kCut);
                done = true;
            }
            return Fate{};
        });
        const auto call = begin(step);
        wait(*call, step);
        tracer.detach();
        return done;
    }

    std::mt19937 random_;
    Story story_;
    std::unique_ptr<Disk> disk_;
    Installation installation_{true};
};

Result judgeCut(const std::vector<Promise> &lawful, const std::string &text) {
    const Disk disk(kCut, kMount);
    Installation installation(true);
    installation.killAll();
    const Stored asFound = readStored(wholesystem::kRuleDatabase);
    const std::string settings = wholesystem::contentOf(wholesystem::kConfiguration);
    const std::string good = wholesystem::contentOf(std::string(wholesystem::kConfiguration) + ".good");
    if (!installation.bringServiceUp() || !installation.bringHostUp())
        return {Class::violated, "does not come up", text + ": " + wholesystem::contentOf("/run/vpkd.out")};
    const Stored rules = readStored(wholesystem::kRuleDatabase);
    const int status = storedStatus();
    const std::string interval = settingIn(wholesystem::contentOf(wholesystem::kConfiguration), "send_report_interval");
    for (const auto &promise : lawful) {
        if (keeps(promise, rules, status, interval))
            return {Class::held, lawful.size() > 1 ? "cut at a write" : "cut when acknowledged", ""};
    }
    const Promise &last = lawful.back();
    const bool rulesKept = std::any_of(lawful.begin(), lawful.end(), [&](const Promise &each) {
        return keeps({each.rows, status, {}}, rules, status, {});
    });
    return {Class::violated, rulesKept ? "status or setting lost" : "rules lost",
            text + ": found " + textOf(rules) + " status " + std::to_string(status) + " interval " + interval +
                " (before the start: " + textOf(asFound) + ", settings " + settings + ", kept copy " + good +
                "), promised " + textOf(last.rows) + " status " + std::to_string(last.status) + " interval " +
                last.interval};
}

Result attempt(unsigned seed) {
    std::string text;
    std::vector<Promise> lawful;
    {
        Session session(seed);
        lawful = session.cut(text);
    }
    return judgeCut(lawful, text);
}

std::string whyNoDisk() try {
    Disk::format(kTemplate);
    std::filesystem::copy_file(kTemplate, kImage, std::filesystem::copy_options::overwrite_existing);
    const Disk disk(kImage, kMount);
    return {};
} catch (const std::exception &error) {
    return error.what();
}

} // namespace

int main(int argc, char **argv) try {
    Arguments arguments(argc, argv);
    const auto seed = static_cast<unsigned>(arguments.number("--seed", 1));
    const auto only = arguments.all("--only");
    const auto cuts = only.empty() ? static_cast<std::size_t>(arguments.number("--cuts", 300)) : only.size();
    const auto seedOf = [&](std::size_t index) {
        return only.empty() ? seed * 100'000 + static_cast<unsigned>(index)
                            : static_cast<unsigned>(std::stoul(only[index]));
    };
    const auto probe = runSpread(
        1, {1, 0}, [] { children::prepare(); },
        [](std::size_t) {
            return Result{Class::held, "", whyNoDisk()};
        });
    if (probe.empty())
        return 0;
    if (!canTrace() || !probe[0].text.empty()) {
        std::printf("[  SKIPPED ] no power cuts here: %s\n",
                    canTrace() ? probe[0].text.c_str() : "system calls cannot be seen on this processor");
        return 0;
    }
    const Workers workers{static_cast<unsigned>(arguments.number("--workers", 2)),
                          static_cast<double>(arguments.number("--seconds", 0))};
    const auto results = runSpread(
        cuts, workers,
        [] {
            children::prepare();
            ::umask(022);
            Disk::format(kTemplate);
        },
        [&](std::size_t index) { return attempt(seedOf(index)); });
    return report(
        "power-cuts", results, [&](std::size_t index) { return std::to_string(seedOf(index)); },
        arguments.has("--verbose"));
} catch (const std::exception &error) {
    std::fprintf(stderr,
                 "power-cuts: %s\npower-cuts [--seed N] [--cuts N] [--workers N] [--seconds N] [--verbose]"
                 " [--only SEED]…\n",
                 error.what());
    return 2;
}
