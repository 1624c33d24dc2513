// A plugin that behaves well or badly as it is told, for tests of the policy host.
//
// The file /run/test-plugin/<place>, where the place is "factory", "setStatus", "disable" (setStatus with 0), "stored"
// (at the end of setStatus) or "applyStatus", names what happens there (see kActions); executeCommand takes these
// names, and some more, as commands. With "write-and-kill" at the place "end" a deletion kills the host in its middle.
// What it is called with is noted in /run/test-plugin/calls.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/klog.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mavo/database.h"
#include "mavo/exception.h"
#include "mavo/rmi.h"
#include "rlv/rlv.h"
#include "support/process.h"
#include "vlog/vlog.h"
#include "vpk-pil/vpk-pil.h"

namespace {

namespace fs = std::filesystem;

const fs::path kNotes = "/run/test-plugin";
const fs::path kConfig = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
constexpr std::string_view kWait = "wait ";
constexpr const char *kMarker = "/nyr_firewall_sd";

std::string contents(const fs::path &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void note(const std::string &call) {
    fs::create_directories(kNotes);
    std::ofstream(kNotes / "calls", std::ios::app) << call << '\n';
}

// The collector's process: tells its number and open descriptors, then sleeps.
[[noreturn]] void becomeDaemon() {
    ::umask(0);
    ::setsid();
    for (int fd = 0; fd <= 2; ++fd)
        ::close(fd);
    std::ostringstream text;
    text << ::getpid() << '\n';
    for (int fd = 0; fd < 1024; ++fd) {
        std::array<char, 4096> target{};
        const auto length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size());
        if (length > 0)
            text << fd << ' ' << std::string(target.data(), static_cast<std::size_t>(length)) << '\n';
    }
    std::ofstream(kNotes / "collector.new") << text.str();
    fs::rename(kNotes / "collector.new", kNotes / "collector");
    for (;;)
        ::sleep(86'400); // as the collector does, until a test ends it
}

bool isChild() { return ::fork() == 0; }

// What to do at a place; true in a process that is the host's child and should come back as if nothing had happened.
const std::map<std::string, std::function<bool()>> kActions = {
    {"", [] { return false; }},
    {"throw", []() -> bool { throw std::runtime_error("thrown\nby order"); }},
    {"throw-mavo", []() -> bool { throw mavo::Exception("mavo by order"); }},
    {"throw-number", []() -> bool { throw 7; }},
    {"throw-unavailable",
     []() -> bool { throw mavo::database::Unavailable("/opt/data/vpk/db/.test.db: held by another program"); }},
    {"kill", [] { return ::kill(::getpid(), SIGKILL) == 0; }},
    {"return-child", [] { return isChild(); }},
    {"throw-child", [] { return isChild() ? throw std::runtime_error("in the child") : false; }},
    {"throw-number-child", [] { return isChild() ? throw 7 : false; }},
    {"throw-unavailable-child",
     [] { return isChild() ? throw mavo::database::Unavailable("statistics: no descriptor") : false; }},
};

bool act(const std::string &place) { return kActions.at(contents(kNotes / place))(); }

bool configured() { return contents(kConfig).find(R"("enabled":"1")") != std::string::npos; }

void configure(const std::string &enabled) {
    fs::create_directories(kConfig.parent_path());
    std::ofstream(kConfig) << R"({"enabled":")" << enabled << "\"}\n";
}

std::string enableCollector(const std::string & = {}) {
    configure("1");
    const int marker = ::shm_open(kMarker, O_RDWR | O_CREAT | O_EXCL, 0644);
    if (marker < 0)
        return {};
    ::close(marker);
    if (isChild())
        becomeDaemon();
    return {};
}

std::string disableCollector(const std::string & = {}) {
    configure("0");
    ::shm_unlink(kMarker);
    return {};
}

// The lines that the plugin's own call of klogctl gives and that hold `filter`.
std::string kernelLog(const std::string &filter) {
    const int size = ::klogctl(10, nullptr, 0);
    std::string buffer(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    const int length = ::klogctl(3, buffer.data(), size);
    std::istringstream lines(buffer.substr(0, static_cast<std::size_t>(length > 0 ? length : 0)));
    std::string found;
    for (std::string line; std::getline(lines, line);)
        found += line.find(filter) != std::string::npos ? line + "\n" : "";
    return found;
}

std::string waitForFile(const std::string &path) {
    if (!process::waitUntil([&path] { return fs::exists(path); }))
        throw std::runtime_error("waited for " + path + " in vain");
    return {};
}

// Sends each line as a command, on one connection. At a line "wait FILE" it notes "waiting" and waits for the file.
std::string commitRules(const std::string &lines) {
    rlv_handle handle = 0;
    if (const int error = rlv_initialize(&handle))
        return "error " + std::to_string(error);
    std::istringstream commands(lines);
    for (std::string command; std::getline(commands, command);) {
        if (command.rfind(kWait, 0) == 0) {
            note("waiting");
            waitForFile(command.substr(kWait.size()));
            continue;
        }
        int code = 0;
        char *message = nullptr;
        rlv_iptables_commit(handle, command.c_str(), &code, &message);
        ::free(message);
    }
    rlv_deinitialize(handle);
    return {};
}

// Sends each line on one connection, which is closed by the exception that follows, as the plugin's is.
std::string commitAndFail(const std::string &lines) {
    struct AtEnd {
        rlv_handle handle = 0;
        ~AtEnd() { rlv_deinitialize(handle); }
    };
    AtEnd atEnd;
    rlv_initialize(&atEnd.handle);
    std::istringstream commands(lines);
    for (std::string command; std::getline(commands, command);)
        rlv_iptables_commit(atEnd.handle, command.c_str(), nullptr, nullptr);
    throw mavo::Exception("in the middle");
}

std::string logError(const std::string &text) {
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TEST", "file.cpp: log(1) > \033[36mTEST: not this\033[0m");
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "TEST", "file.cpp: log(2) > \033[31mTEST: %s\033[0m", text.c_str());
    return {};
}

const std::map<std::string, std::function<std::string(const std::string &)>> kCommands = {
    {"EnableStatCollector", enableCollector},
    {"DisableStatCollector", disableCollector},
    {"StatCollectorPolicy",
     [](const std::string &data) {
         note("StatCollectorPolicy " + data);
         return std::string();
     }},
    {"echo", [](const std::string &data) { return data; }},
    {"kernel-log", kernelLog},
    {"commit", commitRules},
    {"commit-and-fail", commitAndFail},
    {"log-error", logError},
    {"wait", waitForFile},
    {"remove",
     [](const std::string &data) { return std::remove(data.c_str()) == 0 ? std::string() : std::strerror(errno); }},
    {"collector",
     [](const std::string &) -> std::string {
         if (isChild())
             becomeDaemon();
         return {};
     }},
};

class TestPlugin : public AbstractDPluginProvider {
public:
    explicit TestPlugin(mavo::rmi::Service &service) {
        static int instances = 0;
        const int number = ++instances;
        ++alive();
        service.setMethodHandler<int>("/privilege/vpk.firewall", "Test::alive", [] { return alive(); });
        service.setMethodHandler<int>("/privilege/vpk.firewall", "Test::number", [number] { return number; });
        service.setMethodHandler<int>("/privilege/vpk.firewall", "Test::returnChild", [] {
            isChild();
            return 0;
        });
        service.setMethodHandler<int, std::string>("/privilege/vpk.firewall", "Test::length",
                                                   [](std::string &text) { return static_cast<int>(text.size()); });
    }
    ~TestPlugin() override {
        --alive();
        note("destroyed");
        if (contents(kNotes / "end") == "write-and-kill") {
            configure("0"); // as its configuration objects may hold it
            ::kill(::getpid(), SIGKILL);
        }
    }
    TestPlugin(const TestPlugin &) = delete;
    TestPlugin &operator=(const TestPlugin &) = delete;

    int setStatus(int status) override {
        note("setStatus " + std::to_string(status));
        if (act("setStatus") || (status == 0 && act("disable")))
            return 0;
        apply(status);
        const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
        const int result = PolicyStorage::backend->storeStatus("nyr-firewall-plugin", status);
        act("stored");
        return result;
    }
    int getStatus() override {
        const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
        return PolicyStorage::backend->readStatus("nyr-firewall-plugin");
    }
    void applyStatus(int status) override {
        note("applyStatus " + std::to_string(status));
        if (!act("applyStatus"))
            apply(status);
    }
    std::string executeCommand(const std::string &command, const std::string &data) override {
        const auto found = kCommands.find(command);
        if (found != kCommands.end())
            return found->second(data);
        const auto action = kActions.find(command);
        return action == kActions.end() ? "fail" : action->second() ? "child" : "";
    }

private:
    static int &alive() {
        static int count = 0;
        return count;
    }
    static void apply(int status) {
        if (status == 0)
            disableCollector();
        else if (configured())
            enableCollector();
    }
};

} // namespace

extern "C" __attribute__((visibility("default"))) AbstractDPluginProvider *DPluginFactory(mavo::rmi::Service &service) {
    note("factory");
    if (contents(kNotes / "factory") == "null" || act("factory"))
        return nullptr;
    auto *const plugin = new TestPlugin(service);
    if (plugin->setStatus(1) == 0)
        return plugin;
    delete plugin;
    return nullptr;
}
