// Starts, stops and crashes, the plugin's status over them, and clients that mean no good.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <new>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "system/system-test.h"

namespace {

using network::rulesOf;
using systemtest::Lines;
using systemtest::Rows;
using systemtest::storedRules;
using wholesystem::contentOf;

using Lifecycle = systemtest::SystemTest;
using RunningLifecycle = systemtest::RunningSystemTest;

constexpr const char *kRule = "tcp:192.0.2.1:80:in";
const Lines kDenied{"-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP"};

std::size_t countLines(const std::string &text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(Lifecycle, HostWithoutTheServiceEndsWithOneLine) {
    const auto result = process::capture(system.hostCommand());
    EXPECT_NE(result.status, 0);
    EXPECT_LT(result.status, 127) << result.errors;
    EXPECT_EQ(countLines(result.errors), 1U) << result.errors;
}

TEST_F(RunningLifecycle, SecondHostRefusesToStartAndTheFirstServesOn) {
    const auto result = process::capture(system.hostCommand());
    EXPECT_NE(result.status, 0);
    EXPECT_EQ(countLines(result.errors), 1U) << result.errors;
    deny(kRule);
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
}

TEST_F(RunningLifecycle, ProgramsEndCleanlyWhenAskedTo) {
    deny(kRule);
    EXPECT_EQ(system.stopHost(), 0);
    EXPECT_EQ(system.stopService(), 0);
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
}

TEST_F(RunningLifecycle, RulesAreBackInForceAfterARestart) {
    deny(kRule);
    ASSERT_EQ(system.stopHost(), 0);
    network::iptables({"-F", "VPK-DENY"});
    ASSERT_TRUE(system.startHost());
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
}

TEST_F(RunningLifecycle, RulesAreBackInForceAfterAKill) {
    deny(kRule);
    system.killHost();
    system.killService();
    network::iptables({"-F"});
    network::iptables({"-X"});
    ASSERT_TRUE(system.start());
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
    EXPECT_EQ(rulesOf("INPUT"), systemtest::kHooks);
}

TEST_F(RunningLifecycle, HostGoesOnWithARestartedService) {
    deny(kRule);
    system.killService();
    ASSERT_TRUE(system.startService());
    deny("tcp:192.0.2.2:80:in");
    EXPECT_EQ(rulesOf("VPK-DENY").size(), 2U);
}

TEST_F(RunningLifecycle, CallWithoutTheServiceEndsWithAnExceptionAndTheHostLivesOn) {
    system.killService();
    const auto result = system.control({"exec", "ApplyDenyRules", kRule});
    EXPECT_EQ(result.status, 3) << result.errors;
    EXPECT_NE(result.errors.find("Failed to initialize RLV"), std::string::npos) << result.errors;
    ASSERT_TRUE(system.startService());
    deny(kRule);
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
}

TEST_F(RunningLifecycle, DisabledPluginRefusesCommandsAndServesRemoteMethods) {
    deny(kRule);
    EXPECT_EQ(system.control({"set-status", "0"}).status, 0);
    EXPECT_EQ(system.execute("ApplyDenyRules", "tcp:192.0.2.2:80:in"), 1);
    EXPECT_EQ(system.execute("FlushDenyRules"), 1);
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
    const auto result = system.control({"call", "Firewall::ApplyAllowRules", "tcp:192.0.2.3:80:in"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "0\n");
    EXPECT_EQ(rulesOf("VPK-ALLOW"), Lines{"-s 192.0.2.3/32 -p tcp -m tcp --sport 80 -j ACCEPT"});
    EXPECT_EQ(system.control({"call", "Firewall::FlushDenyRules"}).status, 0);
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines());
}

TEST_F(RunningLifecycle, RemoteMethodTellsTheServicesCode) {
    const auto result = system.control({"call", "Firewall::ApplyDenyRules", "tcp:192.0.2.1:70000:in"});
    EXPECT_NE(result.status, 0);
    EXPECT_EQ(result.output, "2\n");
}

TEST_F(RunningLifecycle, PluginDisabledBeforeARestartIsDisabledAfterIt) {
    EXPECT_EQ(system.control({"set-status", "0"}).status, 0);
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(system.execute("FlushDenyRules"), 1);
    EXPECT_EQ(system.control({"set-status", "1"}).status, 0);
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
}

TEST_F(RunningLifecycle, AppliedStatusIsForgottenByARestart) {
    EXPECT_EQ(system.control({"apply-status", "0"}).status, 0);
    EXPECT_EQ(system.execute("FlushDenyRules"), 1);
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
}

TEST_F(RunningLifecycle, DamagedRuleDatabaseIsRestoredFromItsBackup) {
    deny(kRule);
    std::ofstream(wholesystem::kRuleDatabase, std::ios::trunc)
        << "no database any more, but longer than a header is: " << std::string(200, '#');
    deny("tcp:192.0.2.2:80:in");
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 1, 0}, {"tcp", "192.0.2.2", "80", 1, 0}}));
}

TEST_F(RunningLifecycle, BackupEqualsTheDatabaseAfterEveryChange) {
    const auto same = [] { return contentOf(wholesystem::kRuleDatabase) == contentOf(wholesystem::kRuleBackup); };
    deny(kRule);
    EXPECT_TRUE(same());
    allow(kRule);
    EXPECT_TRUE(same());
    EXPECT_EQ(system.execute("FlushAllowRules"), 0);
    EXPECT_TRUE(same());
    EXPECT_EQ(storedRules(wholesystem::kRuleBackup), Rows());
}

// Processes of an account without any privilege that keep the host's socket as busy as they can, until they are told to
// stop: idle connections, broken heads, heads that promise a body, and hang-ups.
class Flood {
public:
    explicit Flood(int processes)
        : counts_(static_cast<Counts *>(
              ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        new (counts_) Counts();
        for (int i = 0; i < processes; ++i) {
            children_.push_back(::fork());
            if (children_.back() == 0)
                run();
        }
    }
    ~Flood() {
        for (const pid_t child : children_) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
        ::munmap(counts_, sizeof(Counts));
    }
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;

    unsigned connections() const { return counts_->connections; }

private:
    struct Counts {
        std::atomic<unsigned> connections{0};
    };

    [[noreturn]] void run() {
        constexpr uid_t kNobody = 65534;
        if (::setresgid(kNobody, kNobody, kNobody) != 0 || ::setresuid(kNobody, kNobody, kNobody) != 0)
            ::_exit(1);
        ::signal(SIGPIPE, SIG_IGN);
        for (unsigned turn = 0;; ++turn)
            connectMany(turn);
    }

    void connectMany(unsigned turn) {
        static const std::string openings[] = {"", "garbage", std::string("RMI1\x05\0\0\0\xff\xff\xff\0", 12),
                                               std::string("RMI1\xff\xff\xff\xff\0\0\0\0", 12),
                                               std::string("RMI1\x04\0\0\0\x08\0\0\0ping", 16)};
        std::vector<support::UniqueFd> sockets;
        for (unsigned i = 0; i < 40; ++i) {
            support::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::string(wholesystem::kHostSocket).copy(address.sun_path, sizeof address.sun_path - 1);
            if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
                continue;
            const std::string &opening = openings[(turn + i) % std::size(openings)];
            ::send(socket.get(), opening.data(), opening.size(), MSG_NOSIGNAL);
            sockets.push_back(std::move(socket));
            ++counts_->connections;
        }
    }

    Counts *counts_;
    std::vector<pid_t> children_;
};

std::string manyRules(int count) {
    std::string list;
    for (int i = 0; i < count; ++i)
        list += "tcp:10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ":80:in;";
    return list;
}

TEST_F(RunningLifecycle, FloodOfClientsHarmsNoApply) {
    constexpr int kRules = 400;
    const Flood flood(2);
    ASSERT_TRUE(process::waitUntil([&flood] { return flood.connections() > 200; }));
    deny(manyRules(kRules));
    const unsigned before = flood.connections();
    EXPECT_TRUE(process::waitUntil([&flood, before] { return flood.connections() > before + 200; }));

    EXPECT_EQ(storedRules().size(), static_cast<std::size_t>(kRules));
    EXPECT_EQ(storedRules(wholesystem::kRuleBackup), storedRules());
    EXPECT_EQ(rulesOf("VPK-DENY").size(), static_cast<std::size_t>(kRules));
}

// A collector writes the whole configuration as it has read it, so it could bring back what was changed meanwhile.
TEST_F(RunningLifecycle, AcknowledgedSettingsStayThoughACollectorIsAtWork) {
    const auto allSleep = [this] {
        const auto all = wholesystem::processesOf("vpkd");
        const std::string sleeping = std::to_string(SYS_clock_nanosleep) + " ";
        return std::all_of(all.begin(), all.end(), [&](pid_t process) {
            const std::string call = contentOf("/proc/" + std::to_string(process) + "/syscall");
            return process == system.hostId() || call.compare(0, sleeping.size(), sleeping) == 0;
        });
    };
    for (int i = 0; i < 10; ++i) {
        system.execute("StatCollectorPolicy", R"({"last_send_report_ts":"1"})"); // a report is due
        system.execute("EnableStatCollector");
        EXPECT_EQ(system.execute("DisableStatCollector"), 0);
        ASSERT_TRUE(process::waitUntil(allSleep));
        EXPECT_THAT(contentOf(wholesystem::kConfiguration), testing::HasSubstr(R"("enabled":"0")")) << i;
    }
}

TEST_F(RunningLifecycle, AccountWithoutPrivilegeMayChangeNothing) {
    deny(kRule);
    process::Options nobody;
    nobody.user = 65534;
    const auto result = process::capture(
        {process::builtForEveryone("vpkctl"), "--socket", wholesystem::kHostSocket, "exec", "FlushDenyRules"}, nobody);
    EXPECT_EQ(result.status, 2) << result.errors;
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
}

} // namespace
