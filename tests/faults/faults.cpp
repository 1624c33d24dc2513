// faults: lets each system call and each allocation of the two programs fail during each operation, and the programs
// die at each, and judges what is left: old or new, whole, in database, backup and kernel, or told and mended.
#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "faults/arguments.h"
#include "faults/failing-memory.h"
#include "faults/installation.h"
#include "faults/operations.h"
#include "faults/point.h"
#include "faults/workers.h"
#include "support/process.h"
#include "support/sqlite-file.h"
#include "support/whole-system.h"

namespace {

using namespace faults;
using children::Clock;
using std::chrono::milliseconds;

constexpr milliseconds kMending{1000};
constexpr milliseconds kMostWait{4000}; // for a mending that comes late, to tell it from one that never comes
constexpr std::chrono::seconds kMostAnswer{40};
// So long a fault stays that has no end by itself: whoever only tries again comes to an end then.
constexpr milliseconds kMostFault{2000};
constexpr const char *kPlanFile = "/run/memory-plan";
constexpr int kMostStarts = 4;

failing_memory::Plan *memoryPlan = nullptr;

void mapMemoryPlan() {
    const int fd = ::open(kPlanFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, sizeof *memoryPlan) != 0)
        throw std::runtime_error(kPlanFile);
    memoryPlan = static_cast<failing_memory::Plan *>(
        ::mmap(nullptr, sizeof *memoryPlan, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ::close(fd);
}

void requireDone(const char *command, const char *data) {
    const auto answer = ask("Host::executeCommand", {command, data});
    if (!answer || answer->told)
        throw std::runtime_error(std::string(command) + ": " + (answer ? answer->text : "no answer"));
}

// The data that each operation begins with.
void makeData() {
    Installation first(false);
    if (!first.bringServiceUp() || !first.bringHostUp())
        throw std::runtime_error("the programs do not start: " + wholesystem::contentOf("/run/vpkd.out"));
    requireDone("ApplyAllowRules", kAllowedBefore);
    requireDone("ApplyDenyRules", kDeniedBefore);
    first.killAll();
    if (!isWhole(observe(), {rowsBefore()}))
        throw std::runtime_error("the rules to begin with are not there: " + textOf(observe().database));
    Installation::keepData();
}

void prepareWorker() {
    children::prepare();
    ::umask(022);
    mapMemoryPlan();
    makeData();
}

// Whatever the point before has left, hooks among it, which a start takes away once only.
void emptyKernel() {
    process::Options options;
    options.input = "*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n:OUTPUT ACCEPT [0:0]\nCOMMIT\n";
    if (const auto done = process::capture({"iptables-restore", "-w"}, options); done.status != 0)
        throw std::runtime_error("iptables-restore: " + done.errors);
}

void damageMain() {
    std::string bytes = sqlitefile::content(wholesystem::kRuleDatabase);
    std::fill(bytes.begin(), bytes.begin() + std::min<std::ptrdiff_t>(200, static_cast<std::ptrdiff_t>(bytes.size())),
              '\x5a');
    sqlitefile::writeFile(wholesystem::kRuleDatabase, bytes);
}

// The tracer's view of a start: what the loader does before main() cannot harm anybody and is passed over.
class FromItsWorkOn {
public:
    explicit FromItsWorkOn(Tracer::Decide decide) : decide_(std::move(decide)) {}
    Fate operator()(const SystemCall &call) {
        begun_ = begun_ || call.number == SYS_umask;
        return begun_ ? decide_(call) : Fate{};
    }

private:
    Tracer::Decide decide_;
    bool begun_ = false;
};

// One operation with one fault (or a pair), from a fresh start of both programs to the judgement.
class Run {
public:
    Run(const Operation &operation, Program program, bool memory)
        : operation_(operation), program_(program), memory_(memory), installation_(false) {}

    void begin() {
        installation_.setMemory(!memory_                    ? Installation::Memory::sound
                                : program_ == Program::host ? Installation::Memory::ofHost
                                                            : Installation::Memory::ofService);
        memoryPlan->process = 0;
        memoryPlan->made = memoryPlan->failed = memoryPlan->first = memoryPlan->last = 0;
        installation_.killAll();
        Installation::putDataBack();
        emptyKernel();
        if (!installation_.bringServiceUp() || !installation_.bringHostUp())
            throw std::runtime_error("the programs do not start: " + wholesystem::contentOf("/run/vpkd.out"));
        if (startsHost())
            installation_.killHost();
        if (operation_.damagesMain)
            damageMain();
    }

    // The operation, with `decide` (for system calls) in force from its beginning. Returns at the reply.
    void operate(const Tracer::Decide &decide) {
        const auto deadline = Clock::now() + kMostAnswer;
        arm(decide);
        if (!startsHost())
            call_.emplace(operation_.method, operation_.arguments);
        if (!children::waitUntil([this] { return isOver(); }, Clock::now() + kMostFault))
            endFault();
        outcome_.answered = children::waitUntil([this] { return isOver(); }, deadline);
        if (startsHost())
            outcome_.told = !installation_.hostServes() || tellsOfTrouble();
        else if (outcome_.answered)
            takeAnswer();
        if (!outcome_.told)
            outcome_.atReply = observe();
    }

    void endFault() {
        tracer_.detach();
        memoryPlan->process = 0;
        faultEnd_ = Clock::now();
    }

    // A call that could not open a damaged database leaves it and its backup as they are, and tells: the next one opens
    // it.
    void callAgain() {
        if (!operation_.damagesMain || !outcome_.told || startsHost())
            return;
        // Nobody may know yet that the service has died of the fault.
        const auto isOpened = [this] {
            const bool isUp = bringUp() && installation_.bringServiceUp();
            const auto answer = isUp ? ask("Host::reload") : std::nullopt;
            faultEnd_ = Clock::now();
            return answer && !answer->told;
        };
        children::waitUntil(isOpened, Clock::now() + kMostWait, milliseconds(100));
    }

    // Has whoever died started again, and waits until all agree.
    void mend(Fault *second) {
        const bool inStart = second != nullptr && !children::runs(installation_.host());
        if (inStart) {
            startTraced([second](const SystemCall &call) { return second->decide(call); });
            children::waitUntil([this] { return installation_.hostServes() || !children::runs(installation_.host()); },
                                Clock::now() + kMostAnswer);
            endFault();
        }
        callAgain();
        // What is looked at often must not hold up who mends.
        const auto agreed = [this] {
            if (!bringUp())
                return outcome_.up = false, true;
            outcome_.inTheEnd = observe();
            const auto now = Clock::now();
            if (!isWhole(outcome_.inTheEnd, operation_.lawful))
                return now > faultEnd_ + kMostWait;
            outcome_.mendedAfter = std::chrono::duration_cast<milliseconds>(now - faultEnd_);
            return true;
        };
        children::waitUntil(agreed, Clock::time_point::max(), milliseconds(15));
        if (outcome_.up)
            outcome_.up = ask("Host::getStatus").has_value();
    }

    Judgement judgeAll(milliseconds slack) const {
        auto judgement = judge(operation_.lawful, outcome_, kMending + slack);
        if (judgement.violation == Violation::none && operation_.reports && !outcome_.told &&
            reports_.find("\"reports\":[]") != std::string::npos)
            return {Violation::unsaid, "no report: " + reports_};
        return judgement;
    }

    // After the mending.
    void lookAtReports() {
        if (!operation_.reports || !outcome_.up)
            return;
        const auto answer = ask("Host::reports");
        reports_ = answer ? answer->value : std::string();
    }

    const Outcome &outcome() const { return outcome_; }
    const std::string &told() const { return told_; }

private:
    bool startsHost() const { return operation_.method == nullptr; }

    void arm(const Tracer::Decide &decide) {
        if (memory_)
            memoryPlan->process = !startsHost() || program_ == Program::service ? target() : -1;
        if (startsHost() && program_ == Program::host && !memory_)
            return startTraced(decide);
        if (!memory_)
            tracer_.attach(target(), decide);
        if (startsHost())
            installation_.startHost();
    }

    pid_t target() const { return program_ == Program::host ? installation_.host() : installation_.service(); }

    void startTraced(const Tracer::Decide &decide) {
        installation_.startHost(true);
        tracer_.follow(installation_.host(), FromItsWorkOn(decide));
    }

    // The service is started again at once when it dies, as its manager would.
    bool isOver() {
        if (!children::runs(installation_.service()) && starts_++ < kMostStarts)
            installation_.startService();
        if (!startsHost())
            return call_->over();
        return !children::runs(installation_.host()) || installation_.hostServes();
    }

    // A host serves also while its plugin cannot come up, and says so.
    static bool tellsOfTrouble() {
        const auto answer = ask("Host::status");
        return !answer || answer->told || answer->value.find("\"rebuild\":\"\"") == std::string::npos;
    }

    void takeAnswer() {
        const Answer answer = call_->answer();
        outcome_.told = answer.told;
        told_ = answer.text;
    }

    // The time that mending may take begins when whoever died is back.
    bool bringUp() {
        const bool run = children::runs(installation_.service()) && children::runs(installation_.host());
        if (run)
            return true;
        if (starts_++ > kMostStarts)
            return false;
        const bool up = installation_.bringServiceUp() && installation_.bringHostUp();
        faultEnd_ = Clock::now();
        return up || starts_ <= kMostStarts;
    }

    const Operation &operation_;
    Program program_;
    bool memory_;
    Installation installation_;
    Tracer tracer_;
    std::optional<Call> call_;
    Outcome outcome_;
    std::string told_;
    std::string reports_;
    int starts_ = 0;
    Clock::time_point faultEnd_;
};

// How many allocations, and which calls, an operation makes where nothing fails.
struct Census {
    std::vector<SystemCall> calls;
    unsigned allocations = 0;
};

Census census(const Operation &operation, Program program) {
    Census found;
    for (const bool memory : {false, true}) {
        Run run(operation, program, memory);
        run.begin();
        run.operate([&found](const SystemCall &call) {
            found.calls.push_back(call);
            return Fate{};
        });
        found.allocations = memoryPlan->made;
        run.endFault();
        run.mend(nullptr);
        const auto judgement = run.judgeAll(milliseconds(0));
        if (run.outcome().told || judgement.violation != Violation::none)
            throw std::runtime_error(std::string(operation.name) + " does not work without a fault: " + run.told() +
                                     nameOf(judgement.violation) + " " + judgement.text);
    }
    return found;
}

using Points = std::vector<Point>;

void addCalls(const Point &place, const Census &found, Points &points) {
    std::map<long, unsigned> seen;
    for (const auto &call : found.calls) {
        Point point = place;
        point.call = call.number;
        point.occurrence = ++seen[call.number];
        point.kind = Point::Kind::kill;
        points.push_back(point);
        const Failures *known = failuresOf(call.number);
        if (known == nullptr)
            continue;
        for (const int *error = call.operand == Operand::file ? known->ofFile : known->ofSocket; *error != 0; ++error) {
            point.error = *error;
            for (const auto kind : {Point::Kind::once, Point::Kind::forGood}) {
                point.kind = kind;
                points.push_back(point);
            }
        }
    }
}

void addAllocations(const Point &place, const Census &found, Points &points) {
    for (unsigned number = 1; number <= found.allocations; ++number) {
        for (const auto kind : {Point::Kind::once, Point::Kind::forGood}) {
            Point point = place;
            point.memory = true;
            point.occurrence = number;
            point.kind = kind;
            points.push_back(point);
        }
    }
}

constexpr std::array<Program, 2> kPrograms{Program::host, Program::service};

// All places, in shared memory since only a worker can find them: as their names, a line each.
Points allPoints() {
    constexpr std::size_t kRoom = 16U << 20U;
    char *const names =
        static_cast<char *>(::mmap(nullptr, kRoom, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto results = runSpread(1, {1, 0}, prepareWorker, [names](std::size_t) {
        std::string text;
        for (const auto &operation : operations()) {
            for (const Program program : kPrograms) {
                Points points;
                Point place;
                place.operation = operation.name;
                place.program = program;
                const Census found = census(operation, program);
                addCalls(place, found, points);
                addAllocations(place, found, points);
                for (const auto &point : points)
                    text += nameOf(point) + "\n";
            }
        }
        text.copy(names, kRoom - 1);
        return Result{Class::held, "", ""};
    });
    if (results.empty())
        return {};
    if (results[0].outcome != Class::held)
        throw std::runtime_error("no places for faults could be found: " + results[0].text);
    Points points;
    std::string line;
    for (const char *at = names; *at != '\0'; ++at) {
        if (*at != '\n') {
            line += *at;
            continue;
        }
        points.push_back(pointOf(line));
        line.clear();
    }
    return points;
}

// As many of each operation, program and kind of fault, as far as there are so many.
Points chosen(Points points, std::size_t count, std::mt19937 &random) {
    std::shuffle(points.begin(), points.end(), random);
    if (points.size() <= count)
        return points;
    std::map<std::string, Points> groups;
    for (const auto &point : points)
        groups[point.operation + (point.program == Program::host ? "h" : "s") + (point.memory ? "m" : "c") +
               std::to_string(static_cast<int>(point.kind))]
            .push_back(point);
    Points some;
    while (some.size() < count) {
        for (auto &[name, group] : groups) {
            if (group.empty() || some.size() >= count)
                continue;
            some.push_back(group.back());
            group.pop_back();
        }
    }
    std::shuffle(some.begin(), some.end(), random);
    return some;
}

Points pairsOf(const Points &points, std::size_t count, std::mt19937 &random) {
    Points pairs;
    for (std::size_t i = 0; i < points.size() && pairs.size() < count; ++i) {
        Point point = points[i];
        if (point.memory || point.kind == Point::Kind::forGood ||
            (point.kind == Point::Kind::kill && point.program == Program::service))
            continue;
        point.second = std::uniform_int_distribution<unsigned>(1, 80)(random);
        pairs.push_back(point);
    }
    return pairs;
}

// For whoever looks into one point.
void showLogs() {
    for (const char *log : {wholesystem::kHostLog, wholesystem::kServiceLog, "/run/vpkd.out", "/run/rlvd.out"})
        std::fprintf(stderr, "---- %s\n%s", log, wholesystem::contentOf(log).c_str());
}

Result attempt(const Point &point, milliseconds slack, bool logs) {
    Run run(operationOf(point.operation), point.program, point.memory);
    run.begin();
    Fault fault(point);
    if (point.memory) {
        memoryPlan->first = point.occurrence;
        memoryPlan->last = point.kind == Point::Kind::forGood ? ~0U : point.occurrence;
    }
    run.operate([&fault](const SystemCall &call) { return fault.decide(call); });
    const bool met = point.memory ? memoryPlan->failed > 0 : fault.met();
    if (point.second > 0 && point.kind != Point::Kind::kill)
        children::waitUntil([&fault] { return fault.secondMet(); }, Clock::now() + milliseconds(100));
    run.endFault();
    Fault second(point, true);
    run.mend(point.second > 0 && point.kind == Point::Kind::kill ? &second : nullptr);
    run.lookAtReports();
    const auto judgement = run.judgeAll(slack);
    if (logs)
        showLogs();
    const std::string told = run.outcome().told ? "told: " + run.told() : "success told";
    if (judgement.violation != Violation::none)
        return {Class::violated, nameOf(judgement.violation), judgement.text + " (" + told + ")"};
    if (!met)
        return {Class::notReached, "", ""};
    return {Class::held, run.outcome().told ? "told, and whole" : "went well all the same", ""};
}

int usage(const char *problem) {
    std::fprintf(stderr,
                 "faults: %s\nfaults [--seed N] [--points N] [--pairs N] [--workers N] [--seconds N] [--slack MS]"
                 " [--verbose] [--only POINT]… [--logs] [--list]\n",
                 problem);
    return 2;
}

} // namespace

int main(int argc, char **argv) try {
    Arguments arguments(argc, argv);
    const auto seed = static_cast<unsigned>(arguments.number("--seed", 1));
    const auto points = static_cast<std::size_t>(arguments.number("--points", 4000));
    const auto pairs = static_cast<std::size_t>(arguments.number("--pairs", 250));
    const milliseconds slack(arguments.number("--slack", 500));
    const Workers workers{static_cast<unsigned>(arguments.number("--workers", 2)),
                          static_cast<double>(arguments.number("--seconds", 0))};
    if (!canTrace()) {
        std::puts("[  SKIPPED ] system calls cannot be changed on this processor");
        return 0;
    }
    Points work;
    for (const auto &name : arguments.all("--only"))
        work.push_back(pointOf(name));
    if (work.empty()) {
        std::mt19937 random(seed);
        const Points every = allPoints();
        if (every.empty())
            return 0;
        std::printf("faults: %zu places and kinds of faults, seed %u\n", every.size(), seed);
        work = chosen(every, points, random);
        const Points second = pairsOf(chosen(every, every.size(), random), pairs, random);
        work.insert(work.end(), second.begin(), second.end());
        std::shuffle(work.begin(), work.end(), random);
    }
    if (arguments.has("--list")) {
        for (const auto &point : work)
            std::puts(nameOf(point).c_str());
        return 0;
    }
    const bool logs = arguments.has("--logs");
    const auto results = runSpread(work.size(), workers, prepareWorker,
                                   [&](std::size_t index) { return attempt(work[index], slack, logs); });
    return report(
        "faults", results, [&](std::size_t index) { return nameOf(work[index]); }, arguments.has("--verbose"));
} catch (const std::exception &error) {
    return usage(error.what());
}
