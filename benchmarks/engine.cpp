// compare-engine open                 opens the database once, so that one made elsewhere is as our own leaves it
// compare-engine start LOG            times Firewall::InitTables
// compare-engine deny|allow LOG FILE  builds the tables, then times Firewall::ApplyDenyRules or ApplyAllowRules with
// the
//                                     rule list in the file
//
// The plugin's engine, without host and command line, against the running traffic-control service and the rule database
// at its usual place. Prints the seconds from the call to its return: by then the connection to the service is closed,
// and so all is in the kernel. The log goes to the file LOG, as that of the policy host does with --log-file; it
// grows without bound with the environment variable COMPARE_WHOLE_LOG set.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "firewall.h"
#include "mavo/database.h"
#include "vlog/vlog-sink.h"

namespace {

constexpr const char *kDatabase = "/opt/data/vpk/db/.firewall.db";
constexpr int kReadWrite = 2; // SQLite's open flag

void logTo(const std::string &path) {
    vlog::FileSink file;
    file.path = path;
    if (std::getenv("COMPARE_WHOLE_LOG") != nullptr)
        file.maxBytes = SIZE_MAX;
    vlog::useFile(file);
}

std::string contentOf(const std::string &path) {
    std::ifstream file(path);
    std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    while (!content.empty() && content.back() == '\n')
        content.pop_back();
    if (content.empty())
        throw std::runtime_error(path + " holds no rules");
    return content;
}

double secondsOf(const std::function<void()> &work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void require(bool held, const char *what) {
    if (!held)
        throw std::runtime_error(what);
}

double measure(const std::vector<std::string> &words) {
    if (words.at(0) == "open")
        return secondsOf([] { const mavo::database::Connection connection(kDatabase, kReadWrite, true); });
    logTo(words.at(1));
    Firewall firewall;
    int result = 0;
    if (words[0] == "start") {
        const double seconds = secondsOf([&] { result = firewall.InitTables(); });
        require(result == 1, "InitTables failed");
        return seconds;
    }
    require(words[0] == "deny" || words[0] == "allow", "start, deny or allow?");
    std::string list = contentOf(words.at(2));
    require(firewall.InitTables() == 1, "InitTables failed");
    const double seconds = secondsOf(
        [&] { result = words[0] == "deny" ? firewall.ApplyDenyRules(list) : firewall.ApplyAllowRules(list); });
    require(result == 0, "the rules were not applied");
    return seconds;
}

} // namespace

int main(int argc, char **argv) try {
    const double seconds = measure(std::vector<std::string>(argv + 1, argv + argc));
    std::printf("%.6f\n", seconds);
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    std::fprintf(stderr, "compare-engine: %s\n", error.what());
    return EXIT_FAILURE;
}
