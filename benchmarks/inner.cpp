// The inner paths: reading rules, commands and kernel log lines, making a statistics report, calling a remote method.
// "peak" is the largest resident size of the process during a benchmark. Run it through benchmarks/inner.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/klog.h>
#include <unistd.h>
#include <variant>
#include <vector>

#include <benchmark/benchmark.h>

#include "extract-klogs.h"
#include "firewall-rule-parser.h"
#include "firewall-stat-storage.h"
#include "mavo/rmi-client.h"
#include "mavo/rmi-server.h"
#include "parser-klogs.h"
#include "rlv/table/command.h"
#include "support/sandbox.h"
#include "vlog/vlog-sink.h"

namespace {

constexpr std::size_t kLogBytes = std::size_t{512} * 1024;
constexpr int kRecords = 100'000;
constexpr const char *kSocket = "/run/benchmark";

std::string address(int number) {
    return "10." + std::to_string(number >> 16 & 255) + "." + std::to_string(number >> 8 & 255) + "." +
           std::to_string(number & 255);
}

// A ring buffer full of lines of dropped packets.
const std::string &kernelLog() {
    static const std::string log = [] {
        std::string text;
        for (int i = 0; text.size() < kLogBytes - 200; ++i)
            text += "<4>[0-  " + std::to_string(1000 + i) +
                    ".605353] IPTables-Dropped:IN= OUT=eth0 SRC=10.0.0.2 DST=" + address(i) +
                    " LEN=60 TOS=0x00 PREC=0x00 TTL=64 ID=0 DF PROTO=TCP SPT=5353 DPT=53 WINDOW=64240 SYN\n";
        return text;
    }();
    return log;
}

// The largest resident size from here to the end, in MiB, as a counter.
class Peak {
public:
    explicit Peak(benchmark::State &state) : state_(state) { std::ofstream("/proc/self/clear_refs") << 5; }
    ~Peak() {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("VmHWM:", 0) == 0)
                state_.counters["peak_MiB"] = std::strtod(line.c_str() + 6, nullptr) / 1024;
        }
    }
    Peak(const Peak &) = delete;
    Peak &operator=(const Peak &) = delete;

private:
    benchmark::State &state_;
};

void ruleText(benchmark::State &state) {
    constexpr int kRules = 1'000;
    std::string list;
    for (int i = 0; i < kRules; ++i)
        list += (i == 0 ? "tcp:" : ";tcp:") + address(i) + ":" + std::to_string(1 + i) + ":in";
    const Peak peak(state);
    for ([[maybe_unused]] auto step : state)
        benchmark::DoNotOptimize(FirewallRuleParser(list, "DROP").rules.size());
    state.SetItemsProcessed(state.iterations() * kRules);
}
BENCHMARK(ruleText)->Unit(benchmark::kMicrosecond);

void optionText(benchmark::State &state) {
    const std::string options = "-A VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j VPK-LOGANDDROP";
    const Peak peak(state);
    for ([[maybe_unused]] auto step : state)
        benchmark::DoNotOptimize(rlv::parseCommand(options, "VPK-").index());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(optionText);

// From the ring buffer to records, with the log lines that the plugin writes about each.
void kernelLogParsing(benchmark::State &state) {
    const auto lines = std::count(kernelLog().begin(), kernelLog().end(), '\n');
    const Peak peak(state);
    for ([[maybe_unused]] auto step : state) {
        KLogExtractor extractor("IPTables-Dropped:");
        std::vector<DbLogRecord> records;
        KLogParser::parse(extractor.updateLogs(), records);
        if (records.size() != static_cast<std::size_t>(lines))
            state.SkipWithError("records are missing");
    }
    state.SetItemsProcessed(state.iterations() * lines);
}
BENCHMARK(kernelLogParsing)->Unit(benchmark::kMillisecond);

std::vector<DbLogRecord> manyRecords() {
    std::vector<DbLogRecord> records;
    records.reserve(kRecords);
    for (int i = 0; i < kRecords; ++i)
        records.push_back({static_cast<std::uint32_t>(1'000 + i), "10.0.0.2", 5353, address(i % 1'000), 53});
    return records;
}

// One by one, each durable: the file lies in memory here.
void fillDatabase() { FirewallStatStorage().saveRecords(manyRecords()); }

// Reads all records and makes the report.
void statisticsReport(benchmark::State &state) {
    FirewallStatStorage storage;
    const Peak peak(state);
    for ([[maybe_unused]] auto step : state) {
        std::vector<DbLogRecord> records;
        std::string report;
        if (storage.getLogRecords(records, 0, 0) != kRecords)
            state.SkipWithError("records are missing");
        storage.prepareStatistic(records, report);
        benchmark::DoNotOptimize(report.size());
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(statisticsReport)->Unit(benchmark::kMillisecond);

// To another process and back.
void remoteMethod(benchmark::State &state) {
    mavo::rmi::Client client(kSocket);
    mavo::rmi::Message request;
    request.write(std::string("tcp:10.0.0.5:80:in"));
    const Peak peak(state);
    for ([[maybe_unused]] auto step : state) {
        if (client.call("Echo", request).status != mavo::rmi::Status::ok)
            state.SkipWithError("the call failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(remoteMethod)->Unit(benchmark::kMicrosecond)->UseRealTime();

[[noreturn]] void serve() {
    mavo::rmi::Service service;
    service.setMethodHandler<std::string, std::string>("/privilege/vpk.firewall", "Echo",
                                                       [](const std::string &text) { return text; });
    support::EventLoop loop;
    const mavo::rmi::Server server(
        loop, mavo::rmi::listenAt(kSocket, 0600), mavo::rmi::Privileges::load("/run/privileges"),
        mavo::rmi::ServerLimits(), [&](const std::string &name) { return service.find(name); },
        [](const mavo::rmi::Caller &, const std::string &, const mavo::rmi::MethodContext &method,
           mavo::rmi::Message &request) { return mavo::rmi::invokeMethod(method, request); });
    loop.run();
    ::_exit(EXIT_SUCCESS);
}

int run(int argc, char **argv) {
    vlog::useFile({"/run/log"});
    std::filesystem::create_directories("/opt/data/vpk/db");
    if (::fork() == 0)
        serve(); // ends with the sandbox
    fillDatabase();
    while (!std::filesystem::exists(kSocket))
        ::usleep(1'000);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}

} // namespace

// The plugin's kernel log.
extern "C" int klogctl(int action, char *buffer, int length) {
    constexpr int kReadAll = 3;
    constexpr int kSizeOfBuffer = 10;
    if (action == kSizeOfBuffer)
        return static_cast<int>(kernelLog().size());
    if (action != kReadAll)
        return -1;
    return static_cast<int>(kernelLog().copy(buffer, static_cast<std::size_t>(length)));
}

int main(int argc, char **argv) {
    return sandbox::run([&] { return run(argc, argv); });
}
