// What others may put in our way: things at each path that we open, connections without end, a second host or service.
// Where the folder is private, a thing in it stands for an accident of root's.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <json/json.h>
#include <memory>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/rmi-client.h"
#include "mavo/rmi.h"
#include "rlv/rlv-query.h"
#include "support/planted-object.h"
#include "support/process.h"
#include "support/whole-system.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr std::chrono::seconds kBound{15}; // for an operation of a few milliseconds, on a machine with much to do

// One remote call, with the answer as text. One that is not answered in time is a failure of the test.
template <typename... Arguments> mavo::rmi::Reply call(const std::string &method, const Arguments &...arguments) {
    mavo::rmi::Message request;
    (request.write(arguments), ...);
    return mavo::rmi::Client(wholesystem::kHostSocket)
        .call(
            method, request, [&method] { throw std::runtime_error(method + " hangs"); }, kBound);
}

struct Operation {
    const char *name;
    std::function<mavo::rmi::Reply()> run;
};

Operation command(const char *name, const std::string &data = std::string()) {
    return {name, [name, data] { return call("Host::executeCommand", std::string(name), data); }};
}

const std::vector<Operation> &operations() {
    static const auto *const all = new std::vector<Operation>{
        {"status", [] { return call("Host::status"); }},
        command("EnableStatCollector"),
        command("ApplyDenyRules", "tcp:192.0.2.7:80"),
        {"status", [] { return call("Host::status"); }},
        {"Firewall::ApplyAllowRules",
         [] { return call("Firewall::ApplyAllowRules", std::string("tcp:192.0.2.8:80")); }},
        {"rules", [] { return call("Host::rules"); }},
        {"reload", [] { return call("Host::reload"); }},
        {"set-status 0", [] { return call("Host::setStatus", 0); }},
        {"set-status 1", [] { return call("Host::setStatus", 1); }},
        command("SendReport"),
        {"reports", [] { return call("Host::reports"); }},
        command("StatCollectorPolicy", R"({"send_report_interval":"3600"})"),
        command("FlushDenyRules"),
        command("DisableStatCollector"),
        {"status", [] { return call("Host::status"); }},
    };
    return *all;
}

std::set<pid_t> collectors(pid_t host) {
    std::set<pid_t> found;
    for (const pid_t process : wholesystem::processesOf("vpkd")) {
        if (process != host)
            found.insert(process);
    }
    return found;
}

Json::Value parsed(const std::string &text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

std::string textOf(const mavo::rmi::Reply &reply) {
    std::string text;
    if (reply.status == mavo::rmi::Status::ok)
        mavo::rmi::Message(reply.body).read(text);
    return text;
}

constexpr const char *kCollectorLock = "/opt/data/vpk/.collector.lock";

class Neighbours : public testing::Test {
protected:
    static wholesystem::System::Options simulated() {
        wholesystem::System::Options options;
        options.simulate = true;
        options.hostArguments = {"--privileges", "/run/privileges"};
        return options;
    }

    wholesystem::System system{simulated()};
};

struct Place {
    const char *name; // of the test
    const char *path;
};

std::string nameOf(const testing::TestParamInfo<Place> &test) { return test.param.name; }

void PrintTo(const Place &place, std::ostream *stream) { *stream << place.path; }

class AThing : public Neighbours, public testing::WithParamInterface<Place> {
protected:
    // Each operation ends in time and does no harm, and the state that is told of the collector is the true one.
    void operate(const planted::Kind &kind, const planted::Object &object) {
        for (const auto &operation : operations()) {
            try {
                const auto reply = operation.run();
                if (reply.status != mavo::rmi::Status::ok) {
                    EXPECT_NE(reply.error, "") << operation.name << " at " << kind.name;
                } else if (operation.name == std::string("status")) {
                    expectTrueState(kind, textOf(reply));
                }
            } catch (const std::system_error &) {
                EXPECT_EQ(GetParam().path, std::string(wholesystem::kHostSocket)) << operation.name << kind.name;
            } catch (const std::exception &error) {
                ADD_FAILURE() << operation.name << " with " << kind.name << ": " << error.what();
            }
            EXPECT_EQ(object.harm(), "") << operation.name << " with " << kind.name;
        }
    }

    // One that has just been switched off may end at any moment, and a file of our own is believed in place of the lock
    // that a collector holds.
    void expectTrueState(const planted::Kind &kind, const std::string &document) const {
        if (kind.trusted && GetParam().path == std::string(kCollectorLock))
            return;
        const std::string told = parsed(document)["collector"].asString();
        const bool lives = !collectors(system.hostId()).empty();
        if (told == "running" || told == "dead" || told == "off") {
            EXPECT_EQ(told == "running", lives) << kind.name << ": " << document;
        }
    }

    // It serves, or has ended with a line that names what lies there.
    void startBeside(const planted::Kind &kind) {
        process::Child host(system.hostCommand());
        const auto serves = [] {
            try {
                return call("Host::status").status == mavo::rmi::Status::ok;
            } catch (const std::system_error &) {
                return false;
            }
        };
        if (!host.waitReady(serves)) {
            EXPECT_FALSE(host.running()) << "hangs at its start with " << kind.name;
            EXPECT_THAT(host.errors(), HasSubstr(GetParam().path)) << kind.name;
        }
        EXPECT_TRUE(host.terminate()) << "does not end with " << kind.name;
    }

    void endCollectors() const {
        for (const pid_t process : collectors(system.hostId()))
            ::kill(process, SIGKILL);
        ASSERT_TRUE(process::waitUntil([this] { return collectors(system.hostId()).empty(); }));
    }
};

TEST_P(AThing, HangsNothingAndIsNeitherFollowedNorBelieved) {
    ASSERT_TRUE(system.start());
    for (const auto &kind : planted::kinds()) {
        // The host looks at the rules behind its answers, too: once it has answered again, it has done so.
        EXPECT_EQ(call("Host::status").status, mavo::rmi::Status::ok);
        if (fs::path(GetParam().path).parent_path() != "")
            fs::create_directories(fs::path(GetParam().path).parent_path());
        {
            const planted::Object object(kind, GetParam().path);
            operate(kind, object);
            system.stopHost();
            endCollectors();
            startBeside(kind);
            EXPECT_EQ(object.harm(), "") << "starting with " << kind.name;
        }
        endCollectors();
        ASSERT_TRUE(system.startHost()) << "after " << kind.name;
        EXPECT_EQ(call("Host::executeCommand", std::string("ApplyDenyRules"), std::string("tcp:192.0.2.9:80")).status,
                  mavo::rmi::Status::ok);
    }
}

INSTANTIATE_TEST_SUITE_P(
    , AThing,
    testing::Values(Place{"Marker", wholesystem::kMarker}, Place{"HostLock", "/opt/data/vpk/.host.lock"},
                    Place{"CollectorLock", kCollectorLock}, Place{"RuleDatabase", wholesystem::kRuleDatabase},
                    Place{"RuleJournal", "/opt/data/vpk/db/.firewall.db-journal"},
                    Place{"RuleBackup", wholesystem::kRuleBackup},
                    Place{"StatusDatabase", "/opt/data/vpk/db/.status.db"},
                    Place{"History", "/opt/data/vpk/db/.history.db"},
                    Place{"HistoryJournal", "/opt/data/vpk/db/.history.db-journal"},
                    Place{"Statistics", wholesystem::kStatisticsDatabase},
                    Place{"Configuration", wholesystem::kConfiguration}, Place{"Outbox", wholesystem::kOutbox},
                    Place{"Report", "/opt/data/vpk/outbox/00000000000000000001-0000000001.json"},
                    Place{"HostSocket", wholesystem::kHostSocket}, Place{"Privileges", "/run/privileges"},
                    Place{"HostLog", wholesystem::kHostLog}, Place{"OldHostLog", "/run/vpkd.log.1"}),
    nameOf);

class AThingOfTheServices : public AThing {
protected:
    static bool serviceServes() {
        rlv::setSocketPath(wholesystem::kServiceSocket);
        try {
            return rlv::query(0, kBound).simulated;
        } catch (const std::exception &) {
            return false;
        }
    }
};

TEST_P(AThingOfTheServices, HangsNothingAndIsNeitherFollowedNorBelieved) {
    for (const auto &kind : planted::kinds()) {
        ASSERT_TRUE(system.startService()) << "before " << kind.name;
        ASSERT_TRUE(system.startHost());
        {
            const planted::Object object(kind, GetParam().path);
            operate(kind, object);
            system.killHost();
            system.stopService();
            endCollectors();
            process::Child service({process::built("rlvd"), "--socket", wholesystem::kServiceSocket, "--simulate",
                                    "--log-file", wholesystem::kServiceLog});
            if (!service.waitReady(serviceServes)) {
                EXPECT_EQ(service.wait(), 1) << "hangs, or ends in another way, with " << kind.name;
                EXPECT_THAT(service.errors(), HasSubstr(GetParam().path)) << kind.name;
            }
            EXPECT_TRUE(service.terminate()) << "does not end with " << kind.name;
            EXPECT_EQ(object.harm(), "") << kind.name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, AThingOfTheServices,
                         testing::Values(Place{"Socket", wholesystem::kServiceSocket},
                                         Place{"Lock", "/run/vpk/rlvd/socket.lock"},
                                         Place{"Log", wholesystem::kServiceLog}),
                         nameOf);

// The packaged host has an account of its own, which can take nobody's things out of the sticky folder of the marker.
class AnUnprivilegedHost : public testing::Test {
protected:
    static constexpr uid_t kAccount = 1;

    void SetUp() override {
        for (const char *folder : {"/opt/data/vpk", "/run/vpk/host", "/run/vpk/rlvd"}) {
            fs::create_directories(folder);
            ASSERT_EQ(::chown(folder, kAccount, kAccount), 0);
        }
        ASSERT_EQ(::chmod("/opt/data/vpk", 0700), 0);
        const std::string service = process::builtForEveryone("rlvd"); // copies the libraries, which nobody may use yet
        program_ = process::builtForEveryone("vpkd");
        process::Options how;
        how.user = kAccount;
        service_.emplace(std::vector<std::string>{service, "--simulate", "--socket", wholesystem::kServiceSocket,
                                                  "--client-user", std::to_string(kAccount), "--log-stderr"},
                         how);
        ASSERT_TRUE(service_->waitReady([this] { return service_->errors().find("serving") != std::string::npos; }))
            << service_->errors();
        host_.emplace(std::vector<std::string>{program_, "--log-stderr"}, how);
        ASSERT_TRUE(host_->waitReady([] { return fs::exists(wholesystem::kHostSocket); }))
            << host_->errors() << service_->errors();
        ASSERT_TRUE(host_->waitReady([this] { return host_->errors().find("serving at") != std::string::npos; }));
    }

    std::set<pid_t> collectors() const {
        std::set<pid_t> found;
        for (const auto &entry : fs::directory_iterator("/proc")) {
            std::error_code gone;
            if (fs::read_symlink(entry.path() / "exe", gone) == program_ && !gone &&
                std::stol(entry.path().filename()) != host_->id())
                found.insert(static_cast<pid_t>(std::stol(entry.path().filename())));
        }
        return found;
    }

    std::string program_;
    std::optional<process::Child> service_;
    std::optional<process::Child> host_;
};

TEST_F(AnUnprivilegedHost, NamesWhatItCannotTakeAwayAndRunsItsCollectorAllTheSame) {
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, wholesystem::kMarker);
        Json::Value status; // the one before lets go of its lock a moment after it has ended
        ASSERT_TRUE(process::waitUntil([&status] {
            status = parsed(textOf(call("Host::status")));
            return status["collector"] == "off";
        })) << kind.name;
        EXPECT_THAT(status["collectorProblem"].asString(),
                    HasSubstr("the marker /dev/shm/nyr_firewall_sd, " + kind.told.substr(kind.told.find(' ') + 1)))
            << kind.name;
        EXPECT_THAT(status["collectorProblem"].asString(), HasSubstr("cannot be removed: ")) << kind.name;
        EXPECT_EQ(textOf(call("Host::executeCommand", std::string("EnableStatCollector"), std::string())), "");
        ASSERT_TRUE(process::waitUntil([this] { return collectors().size() == 1; })) << kind.name << host_->errors();
        // Who reads the settings while the collector writes them finds half of them.
        EXPECT_TRUE(process::waitUntil([] { return parsed(textOf(call("Host::status")))["collector"] == "running"; }))
            << kind.name;
        EXPECT_EQ(textOf(call("Host::executeCommand", std::string("EnableStatCollector"), std::string())), "");
        EXPECT_EQ(collectors().size(), 1U) << kind.name;
        // A collector at work may write back the switch that it has read. One that looks at it at once has ended
        // already.
        EXPECT_TRUE(process::waitUntil([] {
            call("Host::executeCommand", std::string("DisableStatCollector"), std::string());
            return parsed(textOf(call("Host::status")))["collector"] != "running";
        })) << kind.name;
        for (const pid_t process : collectors())
            ::kill(process, SIGKILL);
        ASSERT_TRUE(process::waitUntil([this] { return collectors().empty(); }));
        EXPECT_TRUE(object.stands()) << kind.name;
        EXPECT_EQ(object.harm(), "") << kind.name;
    }
}

// Connections of accounts without any privilege, as many as they get, to both sockets, until it ends.
class Flood {
public:
    Flood() {
        for (uid_t account = 4801; account <= 4806; ++account) {
            const pid_t process = ::fork();
            if (process == 0)
                flood(account);
            processes_.push_back(process);
        }
    }
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;
    ~Flood() {
        for (const pid_t process : processes_) {
            ::kill(process, SIGKILL);
            ::waitpid(process, nullptr, 0);
        }
    }

private:
    static support::UniqueFd connected(const char *path, int type) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
        support::UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const auto *const where = reinterpret_cast<const sockaddr *>(&address);
        return ::connect(socket.get(), where, sizeof address) == 0 ? std::move(socket) : support::UniqueFd();
    }

    [[noreturn]] static void flood(uid_t account) {
        if (::setgid(account) != 0 || ::setuid(account) != 0)
            ::_exit(1);
        std::vector<support::UniqueFd> held;
        for (std::size_t next = 0;; ++next) {
            ::poll(nullptr, 0, 1); // the machine's processors are not what is fought for
            for (const auto &[path, type] : {std::make_pair(wholesystem::kHostSocket, SOCK_STREAM),
                                             std::make_pair(wholesystem::kServiceSocket, SOCK_SEQPACKET)}) {
                auto socket = connected(path, type);
                if (socket) // half of a request
                    static_cast<void>(::send(socket.get(), "\1\0\0\0\0\0\0", 7, MSG_NOSIGNAL | MSG_DONTWAIT));
                if (held.size() < 40)
                    held.push_back(std::move(socket));
                else
                    held[next % held.size()] = std::move(socket);
            }
        }
    }

    std::vector<pid_t> processes_;
};

class UnderAFlood : public Neighbours {};

TEST_F(UnderAFlood, RootDoesEverything) {
    ASSERT_TRUE(system.start());
    const Flood flood;
    for (const auto &operation : operations()) {
        auto reply = operation.run();
        // A collector at work may write back the settings that it has read, which the host notices.
        process::waitUntil([&] {
            if (reply.error.find("try again") == std::string::npos)
                return true;
            reply = operation.run();
            return false;
        });
        EXPECT_EQ(reply.status, mavo::rmi::Status::ok) << operation.name << ": " << reply.error;
    }
    ASSERT_EQ(system.stopHost(), 0);
    for (const pid_t process : collectors(-1))
        ::kill(process, SIGKILL);
    ASSERT_TRUE(system.startHost());
    ASSERT_EQ(system.stopService(), 0);
    ASSERT_TRUE(system.startService());
}

// Every file and folder below the data, with what tells a change.
std::string dataAsItIs() {
    std::set<std::string> lines;
    for (const auto &entry : fs::recursive_directory_iterator("/opt/data")) {
        struct stat status {};
        ::lstat(entry.path().c_str(), &status);
        lines.insert(entry.path().string() + " " + std::to_string(status.st_ino) + " " +
                     std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) + " " +
                     std::to_string(status.st_size));
    }
    std::string all;
    for (const auto &line : lines)
        all += line + "\n";
    return all;
}

class Two : public Neighbours {
protected:
    // Starts several at once. One goes on, the others end with a line that holds `why`.
    static void expectOne(const std::vector<std::string> &words, const std::string &why) {
        std::vector<std::unique_ptr<process::Child>> all(4);
        for (auto &child : all)
            child = std::make_unique<process::Child>(words);
        const auto running = [&] {
            return std::count_if(all.begin(), all.end(), [](const auto &child) { return child->running(); });
        };
        EXPECT_TRUE(process::waitUntil([&] { return running() == 1; })) << running();
        for (const auto &child : all) {
            if (child->running())
                continue;
            EXPECT_EQ(child->wait(), 1);
            EXPECT_THAT(child->errors(), HasSubstr(why));
        }
        for (const auto &child : all) {
            if (child->running()) {
                EXPECT_EQ(child->terminate(), 0);
            }
        }
    }
};

TEST_F(Two, HostsLeaveEverythingToTheFirst) {
    ASSERT_TRUE(system.start());
    EXPECT_EQ(system.execute("ApplyDenyRules", "tcp:192.0.2.7:80"), 0);
    const std::string before = dataAsItIs();
    const std::string rules = textOf(call("Host::status"));
    const auto second = process::capture(system.hostCommand());
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.errors, HasSubstr("already running: another process holds /opt/data/vpk/.host.lock"));
    EXPECT_EQ(dataAsItIs(), before);
    EXPECT_EQ(textOf(call("Host::status")), rules);
}

TEST_F(Two, HostsAtOnceAreOne) {
    ASSERT_TRUE(system.startService());
    fs::create_directories("/run/vpk/host");
    expectOne(system.hostCommand(), "already running: another process holds /opt/data/vpk/.host.lock");
    ASSERT_TRUE(system.startHost());
}

TEST_F(Two, ServicesAtOnceAreOne) {
    fs::create_directories("/run/vpk/rlvd");
    expectOne({process::built("rlvd"), "--socket", wholesystem::kServiceSocket, "--simulate", "--log-stderr"},
              "another service is running there");
    ASSERT_TRUE(system.start());
}

} // namespace
