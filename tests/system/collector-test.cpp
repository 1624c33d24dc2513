// The statistics collector, from a dropped packet to the report.
#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <json/json.h>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <tuple>

#include "support/kernel-log.h"
#include "system/system-test.h"

namespace {

using network::Side;
using systemtest::Lines;
using wholesystem::contentOf;
using wholesystem::processesOf;

namespace fs = std::filesystem;

constexpr std::uint16_t kPort = 4711;
constexpr int kStatisticsType = 10007;

// Source and destination with their ports, as text.
using Packet = std::tuple<std::string, std::string, std::string, std::string>;
using PacketOfSecond = std::map<long long, Packet>;

struct Report {
    int subtype = 0;
    Json::Value body;
};

Json::Value parseJson(const std::string &text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return value;
}

// The reports in the outbox, oldest first.
std::vector<Report> reports() {
    std::set<std::string> names;
    if (fs::exists(wholesystem::kOutbox)) {
        for (const auto &entry : fs::directory_iterator(wholesystem::kOutbox))
            names.insert(entry.path());
    }
    std::vector<Report> result;
    for (const auto &name : names) {
        const Json::Value document = parseJson(contentOf(name));
        if (document.isObject() && document["type"] == kStatisticsType)
            result.push_back({document["subtype"].asInt(), parseJson(document["body"].asString())});
    }
    return result;
}

std::string configured(const char *key) { return parseJson(contentOf(wholesystem::kConfiguration))[key].asString(); }

// The statistics rows of one destination; none while the database is being written.
PacketOfSecond rowsAbout(const std::string &destination) {
    PacketOfSecond rows;
    try {
        for (const auto &record : wholesystem::queryCopy(wholesystem::kStatisticsDatabase,
                                                         "SELECT ts, sip, sport, dip, dport FROM firewall_stat"
                                                         " WHERE dip = '" +
                                                             destination + "'"))
            rows[std::stoll(record[0])] = {record[1], record[2], record[3], record[4]};
    } catch (const std::exception &) {
        return {};
    }
    return rows;
}

// What the store can keep of the packets in the kernel's log: of each second since boot the last one that has ports.
// Then only those to one destination.
PacketOfSecond loggedTo(const std::string &destination) {
    static const std::regex form("^IPTables-Dropped:IN=.* SRC=([^ ]+) DST=([^ ]+) .*SPT=([0-9]+) DPT=([0-9]+)");
    PacketOfSecond packets;
    for (const auto &line : kernellog::linesWith("IPTables-Dropped:")) {
        std::smatch match;
        if (line.facility == 0 && std::regex_search(line.text, match, form))
            packets[line.time.count() / 1'000'000] = {match[1], match[3], match[2], match[4]};
    }
    for (auto packet = packets.begin(); packet != packets.end();)
        packet = std::get<2>(packet->second) == destination ? std::next(packet) : packets.erase(packet);
    return packets;
}

void awaitNextSecond() {
    const auto second = [] { return kernellog::now().count() / 1'000'000; };
    const auto now = second();
    process::waitUntil([&] { return second() > now; });
}

class Collector : public systemtest::RunningSystemTest {
protected:
    void SetUp() override {
        std::string reason;
        if (!kernellog::seesThisNamespace(reason))
            GTEST_SKIP() << reason;
        RunningSystemTest::SetUp();
    }

    // Sets interval and time of the last report, then switches on.
    void switchOn(int intervalSeconds, std::time_t lastReport) {
        EXPECT_EQ(system.execute("StatCollectorPolicy",
                                 R"({"send_report_interval":")" + std::to_string(intervalSeconds) +
                                     R"(","last_send_report_ts":")" + std::to_string(lastReport) + R"("})"),
                  0);
        EXPECT_EQ(system.execute("EnableStatCollector"), 0);
    }

    // The processes of the host's program but for the host itself.
    std::vector<pid_t> collectors() const {
        auto ids = processesOf("vpkd");
        ids.erase(std::remove(ids.begin(), ids.end(), system.hostId()), ids.end());
        return ids;
    }

    bool awaitCollectors(std::size_t count) const {
        return process::waitUntil([&] { return collectors().size() == count; });
    }

    // The far host's datagram is dropped on its way in: `count` of them, each in a second of its own.
    void dropPackets(int count, std::uint16_t fromPort) {
        const auto from = pair.openUdp(Side::far, fromPort);
        for (int i = 0; i < count; ++i) {
            awaitNextSecond();
            const auto dropped = network::packetsAtEndOf("VPK-LOGANDDROP");
            ASSERT_TRUE(network::sendUdp(from, pair.at(Side::near, kPort), "unwanted"));
            ASSERT_TRUE(process::waitUntil([&] { return network::packetsAtEndOf("VPK-LOGANDDROP") > dropped; }));
        }
    }
    void denyFar() { deny("udp:" + pair.address(Side::far) + ":*:in"); }
    const std::string &destination() const { return pair.address(Side::near); }

    network::Pair pair;
};

TEST_F(Collector, CarriesDroppedPacketsIntoTheDatabaseAndTheReport) {
    constexpr int kInterval = 6;
    denyFar();
    dropPackets(3, 4712);
    awaitNextSecond(); // so that nothing more can take the place of the last packet
    const auto logged = loggedTo(destination());
    ASSERT_FALSE(logged.empty());
    switchOn(kInterval, std::time(nullptr) - 1);

    // The first iteration stores what the log holds and finds no report due.
    ASSERT_TRUE(process::waitUntil([&] { return rowsAbout(destination()).size() == logged.size(); }));
    const auto rows = rowsAbout(destination());
    const long long boot = rows.begin()->first - logged.begin()->first;
    EXPECT_NEAR(static_cast<double>(boot),
                static_cast<double>(std::time(nullptr)) - static_cast<double>(kernellog::now().count()) / 1e6, 2.5);
    PacketOfSecond expectedRows;
    for (const auto &[second, packet] : logged)
        expectedRows[second + boot] = packet;
    EXPECT_EQ(rows, expectedRows);

    // The second one reports what its interval has seen, and empties the database.
    const std::string before = configured("last_send_report_ts");
    dropPackets(3, 4713);
    ASSERT_TRUE(process::waitUntil([] { return !reports().empty(); }));
    ASSERT_TRUE(process::waitUntil([&] { return configured("last_send_report_ts") != before; }));
    const long long reported = std::stoll(configured("last_send_report_ts"));
    unsigned expected = 0;
    for (const auto &[second, packet] : loggedTo(destination()))
        expected += second + boot >= reported - kInterval ? 1 : 0;
    const Report report = reports().front();
    EXPECT_EQ(report.subtype, 1);
    EXPECT_EQ(report.body["v"], "0.1");
    EXPECT_EQ(report.body["data"][destination()].asUInt(), expected) << report.body;
    EXPECT_GE(expected, 1U);
    EXPECT_TRUE(process::waitUntil([&] { return rowsAbout(destination()).empty(); }));
}

TEST_F(Collector, EndsWhenSwitchedOff) {
    switchOn(1, std::time(nullptr));
    ASSERT_TRUE(awaitCollectors(1));
    EXPECT_TRUE(fs::exists(wholesystem::kMarker));
    EXPECT_EQ(system.execute("DisableStatCollector"), 0);
    EXPECT_FALSE(fs::exists(wholesystem::kMarker));
    EXPECT_TRUE(awaitCollectors(0));
    deny("tcp:192.0.2.1:80"); // the host itself lives on
    EXPECT_EQ(configured("enabled"), "0");
}

TEST_F(Collector, SwitchedOffStaysOffOverARestart) {
    switchOn(1, std::time(nullptr));
    ASSERT_TRUE(awaitCollectors(1));
    EXPECT_EQ(system.execute("DisableStatCollector"), 0);
    ASSERT_TRUE(awaitCollectors(0));
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(configured("enabled"), "0");
    EXPECT_FALSE(fs::exists(wholesystem::kMarker));
    EXPECT_TRUE(collectors().empty());
}

TEST_F(Collector, SwitchedOnIsThereOnceAfterARestart) {
    switchOn(1, std::time(nullptr));
    ASSERT_TRUE(awaitCollectors(1));
    const auto first = collectors();
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(collectors(), first);
    EXPECT_EQ(configured("enabled"), "1");
}

TEST_F(Collector, SwitchedOnIsThereOnceAfterAKillOfBoth) {
    switchOn(1, std::time(nullptr));
    ASSERT_TRUE(awaitCollectors(1));
    const auto first = collectors();
    system.killHost();
    ::kill(first.front(), SIGKILL);
    // Only then has it let go of the lock by which a host tells that it lives.
    ASSERT_TRUE(process::waitUntil([&] { return ::kill(first.front(), 0) != 0; }));
    ASSERT_TRUE(system.startHost());
    ASSERT_TRUE(awaitCollectors(1));
    EXPECT_NE(collectors(), first);
}

TEST_F(Collector, DeadOneIsStartedAgainAndGoesOnAfterTheLastReport) {
    const auto reported = std::time(nullptr) - 7;
    switchOn(60, reported);
    ASSERT_TRUE(awaitCollectors(1));
    const pid_t first = collectors().front();
    ::kill(first, SIGKILL);
    ASSERT_TRUE(process::waitUntil([&] { return collectors().size() == 1 && collectors().front() != first; }));
    EXPECT_TRUE(process::waitUntil([] { return fs::exists(wholesystem::kMarker); }));
    EXPECT_EQ(configured("enabled"), "1");
    EXPECT_EQ(configured("last_send_report_ts"), std::to_string(reported));
    EXPECT_TRUE(reports().empty());
}

TEST_F(Collector, DeadOneCanBeSwitchedOnAtOnce) {
    switchOn(60, std::time(nullptr));
    ASSERT_TRUE(awaitCollectors(1));
    const pid_t first = collectors().front();
    ::kill(first, SIGKILL);
    ASSERT_TRUE(awaitCollectors(0));
    EXPECT_EQ(system.execute("EnableStatCollector"), 0);
    EXPECT_TRUE(awaitCollectors(1));
    EXPECT_THAT(contentOf(wholesystem::kHostLog), testing::HasSubstr("is started again in 1 s"));
}

// As on a device without a clock of its own: the time comes from the network, a while after the boot.
TEST_F(Collector, ReportsWhatItSeesAfterTheClockWasSetUnderIt) {
    constexpr int kInterval = 3;
    const char *const ahead = "/run/moved-clock";
    const char *const old = std::getenv("ASAN_OPTIONS");
    ASSERT_EQ(system.stopHost(), 0);
    std::ofstream(ahead) << 1'000'000 - std::time(nullptr);
    process::Options how;
    how.environment = {"LD_PRELOAD=" NYR_BINARY_DIR "/lib/libmoved-clock.so", std::string("NYR_MOVED_CLOCK=") + ahead,
                       "ASAN_OPTIONS=" + std::string(old != nullptr ? old : "") + ":verify_asan_link_order=0"};
    system.setHostOptions(how);
    ASSERT_TRUE(system.startHost());
    denyFar();
    dropPackets(1, 4712);
    switchOn(kInterval, 1'000'000);
    ASSERT_TRUE(process::waitUntil([&] { return !rowsAbout(destination()).empty(); }));
    EXPECT_LT(rowsAbout(destination()).rbegin()->first, 2'000'000);

    std::ofstream(ahead) << 0;
    const auto set = std::time(nullptr);
    ASSERT_TRUE(process::waitUntil(
        [&] { return contentOf(wholesystem::kHostLog).find("the clock was set by") != std::string::npos; }));
    const auto before = static_cast<std::ptrdiff_t>(reports().size());
    // A report is about its last interval, and comes about every second one: one packet may be in none.
    const auto counted = [&] {
        dropPackets(1, 4713);
        const auto all = reports();
        return std::any_of(all.begin() + before, all.end(), [&](const Report &report) {
            return report.subtype == 1 && report.body["data"][destination()].asUInt() > 0;
        });
    };
    EXPECT_TRUE(process::waitUntil([&] { return counted() && std::stoll(configured("last_send_report_ts")) >= set; }));
    for (const auto &[second, packet] : rowsAbout(destination()))
        EXPECT_GT(second, 2'000'000);
    EXPECT_EQ(collectors().size(), 1U);
}

TEST_F(Collector, MarkerOfACollectorThatDiedWithItsHostIsRemovedAtTheNextStart) {
    system.killHost();
    std::ofstream(wholesystem::kMarker).close();
    ASSERT_TRUE(system.startHost());
    EXPECT_FALSE(fs::exists(wholesystem::kMarker));
}

TEST_F(Collector, DisablingThePluginSwitchesItOffForGood) {
    switchOn(1, std::time(nullptr));
    ASSERT_TRUE(awaitCollectors(1));
    EXPECT_EQ(system.control({"set-status", "0"}).status, 0);
    EXPECT_TRUE(awaitCollectors(0));
    EXPECT_EQ(system.control({"set-status", "1"}).status, 0);
    EXPECT_EQ(configured("enabled"), "0");
    EXPECT_TRUE(collectors().empty());
}

// The plugin reads the kernel log through the host: the kernel's own stamp has no hyphen, the device's has one.
TEST_F(Collector, LogReachesThePluginInTheDevicesDialectAndWithoutForgedLines) {
    denyFar();
    const auto fromPort = static_cast<std::uint16_t>(std::random_device()() % 30'000 + 20'000);
    dropPackets(1, fromPort);
    const std::string victim = "192.0.2." + std::to_string(std::time(nullptr) % 250);
    const std::string forged = "IPTables-Dropped:IN=eth0 OUT= SRC=" + victim + " DST=" + destination() +
                               " LEN=40 PROTO=UDP SPT=1 DPT=2 forged";
    for (const char *priority : {"", "<4>", "<0>"})
        kernellog::forge(priority + forged);
    ASSERT_EQ(kernellog::linesWith(forged).size(), 3U);

    EXPECT_EQ(system.execute("SendReport"), 0);
    const auto sent = reports();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent.front().subtype, 139);
    const std::regex ours(
        "^<[0-9]+>\\[[0-9]+- *[0-9]+\\.[0-9]+\\] IPTables-Dropped:IN=near OUT= .*SRC=" + pair.address(Side::far) +
        " DST=" + destination() + " .*SPT=" + std::to_string(fromPort) + " DPT=4711 .*");
    int found = 0;
    for (const auto &line : sent.front().body["data"]) {
        found += std::regex_match(line.asString(), ours) ? 1 : 0;
        EXPECT_EQ(line.asString().find("forged"), std::string::npos) << line;
    }
    EXPECT_EQ(found, 1) << sent.front().body;
}

// Everything but a blank, '/' and ':' may stand in the name of a device.
TEST_F(Collector, CountsPacketsOfADeviceThatIsNamedLikeAnAddress) {
    const std::string name = "SRC=6.6.6.6";
    for (const Lines &words : {Lines{"set", "near", "down"}, {"set", "near", "name", name}, {"set", name, "up"}}) {
        Lines command{"ip", "link"};
        command.insert(command.end(), words.begin(), words.end());
        ASSERT_EQ(process::capture(command).status, 0) << words[1];
    }
    denyFar();
    const auto fromPort = static_cast<std::uint16_t>(std::random_device()() % 30'000 + 20'000);
    dropPackets(1, fromPort);
    awaitNextSecond();
    ASSERT_EQ(kernellog::linesWith("IN=" + name + " OUT= ").empty(), false);
    switchOn(60, std::time(nullptr));
    const Packet expected{pair.address(Side::far), std::to_string(fromPort), destination(), std::to_string(kPort)};
    EXPECT_TRUE(process::waitUntil([&] {
        const auto rows = rowsAbout(destination());
        return std::any_of(rows.begin(), rows.end(), [&](const auto &row) { return row.second == expected; });
    }));
}

TEST_F(Collector, CountsNoForgedPacketAndSurvivesIt) {
    denyFar();
    // A time and a port that would end the collector with an exception, and a packet that never was.
    kernellog::forge("<4>IPTables-Dropped:[-x.] SRC=1 DST=" + destination() + " SPT=x DPT=y");
    kernellog::forge("<4>IPTables-Dropped:IN=a OUT= SRC=192.0.2.1 DST=" + destination() + " SPT=99999999999 DPT=2 ");
    dropPackets(1, 4712);
    awaitNextSecond();
    kernellog::forge("<4>IPTables-Dropped:IN=a OUT= SRC=192.0.2.1 DST=" + destination() + " SPT=1 DPT=2 ");
    switchOn(60, std::time(nullptr));
    ASSERT_TRUE(process::waitUntil([&] { return !rowsAbout(destination()).empty(); }));
    for (const auto &[second, packet] : rowsAbout(destination()))
        EXPECT_EQ(std::get<0>(packet), pair.address(Side::far));
    EXPECT_EQ(collectors().size(), 1U);
}

} // namespace
