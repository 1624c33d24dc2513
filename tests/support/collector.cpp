#include "support/collector.h"

#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fake-mavo.h"
#include "support/fake-nyr.h"
#include "support/fake-process.h"
#include "support/fake-vlog.h"
#include "support/text-file.h"

namespace collector {
namespace {

constexpr int kEnded = 99;
constexpr int kDeadlineMs = 30'000;

Json::Value ownAccount;

std::string accountPath(pid_t process) { return "/run/collector-" + std::to_string(process); }

Json::Value array(const std::vector<std::string> &texts) {
    Json::Value result(Json::arrayValue);
    for (const std::string &text : texts)
        result.append(text);
    return result;
}

void writeAccount(const std::string &end) {
    ownAccount["end"] = end;
    ownAccount["messages"] = array(fakevlog::messages());
    ownAccount["functions"] = array(fakevlog::functions("stat-daemon.cpp"));
    ownAccount["trace"] = array(fakemavo::trace());
    ownAccount["reports"] = Json::Value(Json::arrayValue);
    for (const fakenyr::Report &report : fakenyr::reports)
        ownAccount["reports"].append(std::to_string(report.type) + " " + std::to_string(report.subtype) + " " +
                                     report.body);
    std::ostringstream text;
    text << ownAccount;
    textfile::write(accountPath(getpid()), text.str());
}

[[noreturn]] void end(const std::string &how) {
    fakeprocess::orders().exit = {};
    writeAccount(how);
    _exit(kEnded);
}

void noteOpening() {
    if (ownAccount.isMember("opening"))
        return;
    Json::Value &opening = ownAccount["opening"];
    opening["open"] = Json::Value(Json::arrayValue);
    for (const int descriptor : {0, 1, 2}) {
        if (fcntl(descriptor, F_GETFD) >= 0)
            opening["open"].append(descriptor);
    }
    opening["umask"] = umask(0);
    umask(opening["umask"].asUInt());
    opening["leader"] = getsid(0) == getpid();
}

void beginAccount(const std::function<void()> &asleep, int sleeps) {
    fakevlog::clear();
    fakemavo::clearTrace();
    fakenyr::reports.clear();
    ownAccount = Json::Value();
    fakemavo::hooks().open = [](const std::string &, int) { noteOpening(); };
    fakeprocess::orders().exit = [](int status) { writeAccount("exit " + std::to_string(status)); };
    fakeprocess::orders().sleep = [asleep, left = sleeps](unsigned int seconds) mutable {
        ownAccount["sleeps"].append(seconds);
        if (--left == 0)
            end("asleep");
        if (asleep)
            asleep();
        *fakeprocess::orders().now += seconds;
        return 0u;
    };
}

} // namespace

void watch(int sleeps, const std::function<void()> &asleep) {
    fakeprocess::orders().now = 1700000000;
    fakeprocess::orders().uptime = 1000;
    fakeprocess::orders().inChild = [asleep, sleeps] { beginAccount(asleep, sleeps); };
}

Bedroom::Bedroom() {
    if (pipe(asleep) != 0 || pipe(awake) != 0)
        throw std::runtime_error("no pipe");
}

Bedroom::~Bedroom() {
    for (const int descriptor : {asleep[0], asleep[1], awake[0], awake[1]})
        close(descriptor);
}

void Bedroom::sleep() const {
    char byte = 'z';
    if (write(asleep[1], &byte, 1) != 1 || read(awake[0], &byte, 1) != 1)
        _exit(3);
}

void Bedroom::waitForOne() const {
    pollfd readable{asleep[0], POLLIN, 0};
    char byte = '\0';
    if (poll(&readable, 1, kDeadlineMs) != 1 || read(asleep[0], &byte, 1) != 1)
        throw std::runtime_error("no collector sleeps");
}

void Bedroom::wakeOne() const {
    if (write(awake[1], "!", 1) != 1)
        throw std::runtime_error("no collector wakes");
}

int run(const std::function<int()> &call) {
    const pid_t self = getpid();
    try {
        const int result = call();
        if (getpid() == self)
            return result;
        end("returned " + std::to_string(result));
    } catch (const std::exception &error) {
        if (getpid() == self)
            throw;
        end(std::string("threw ") + error.what());
    }
}

void awaitEnds() {
    for (const pid_t child : fakeprocess::children()) {
        siginfo_t information{};
        waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOWAIT); // accounts() reaps it
    }
}

std::vector<Json::Value> accounts() {
    std::vector<Json::Value> all;
    for (const pid_t child : fakeprocess::children()) {
        int status = 0;
        waitpid(child, &status, 0);
        Json::Value account;
        std::istringstream text(textfile::read(accountPath(child)));
        Json::parseFromStream(Json::CharReaderBuilder(), text, &account, nullptr);
        account["status"] = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        all.push_back(account);
    }
    return all;
}

Json::Value account() {
    const std::vector<Json::Value> all = accounts();
    if (all.size() != 1)
        throw std::logic_error(std::to_string(all.size()) + " collectors were forked");
    return all.front();
}

std::vector<std::string> strings(const Json::Value &array) {
    std::vector<std::string> result;
    for (const Json::Value &value : array)
        result.push_back(value.asString());
    return result;
}

} // namespace collector
