// The real programs together: traffic-control service, policy host with the plugin, and command line.
#ifndef TESTS_SUPPORT_WHOLE_SYSTEM_H
#define TESTS_SUPPORT_WHOLE_SYSTEM_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/process.h"
#include "support/terminal.h"

namespace wholesystem {

constexpr const char *kServiceSocket = "/run/vpk/rlvd/socket";
constexpr const char *kHostSocket = "/run/vpk/host/socket";
constexpr const char *kServiceLog = "/run/rlvd.log";
constexpr const char *kHostLog = "/run/vpkd.log";
constexpr const char *kRuleDatabase = "/opt/data/vpk/db/.firewall.db";
constexpr const char *kRuleBackup = "/opt/data/vpk/db/.firewall.db-backup";
constexpr const char *kStatisticsDatabase = "/opt/data/vpk/db/.firewall.stat.db";
constexpr const char *kConfiguration = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
constexpr const char *kMarker = "/dev/shm/nyr_firewall_sd";
constexpr const char *kOutbox = "/opt/data/vpk/outbox";

// Starts and stops the programs, in the test's own namespaces, at their usual places. When the test has failed by the
// time this goes away, the programs' logs are printed. At most one at a time. Everything that is waited for has a
// deadline; what does not happen is a failure of the test, told with the program's own words.
class System {
public:
    struct Options {
        bool simulate = false;                     // the service holds its chains in memory
        std::vector<std::string> hostArguments;    // beside those for sockets, plugin and log
        bool resolve = false;                      // the service looks up host names
        std::vector<std::string> serviceArguments; // likewise
        process::Options host;                     // how the host is started
    };

    explicit System(Options options);
    System() : System(Options()) {}
    ~System();
    System(const System &) = delete;
    System &operator=(const System &) = delete;

    // Start a program and wait until it serves its socket. False, and a failure of the test, when it does not.
    bool startService();
    bool startHost();
    bool start() { return startService() && startHost(); }

    // SIGTERM; the exit status, or nothing (and a failure of the test) when it did not end.
    std::optional<int> stopHost();
    std::optional<int> stopService();
    // SIGKILL.
    void killHost();
    void killService();
    // Stops the host and starts it again.
    bool restartHost();

    pid_t hostId() const { return host_ ? host_->id() : -1; }
    // For the next start.
    void setHostOptions(process::Options how) { options_.host = std::move(how); }
    // The words that startHost() runs.
    std::vector<std::string> hostCommand() const;

    // Runs vpkctl with these words behind its --socket option.
    process::Result control(const std::vector<std::string> &words, const std::string &input = std::string()) const;
    // The same on a terminal, where a person types `answer`.
    process::OnTerminal controlOnTerminal(const std::vector<std::string> &words, const std::string &answer = {}) const;
    // "vpkctl exec": the exit status. A status above 1 is a failure of the test.
    int execute(const std::string &command, const std::string &data = std::string()) const;

private:
    Options options_;
    std::optional<process::Child> service_;
    std::optional<process::Child> host_;
};

// The whole content; empty for a file that cannot be read.
std::string contentOf(const std::string &path);

// Processes that run that program of ours, living ones only.
std::vector<pid_t> processesOf(const std::string &program);

using Record = std::vector<std::string>;
// The rows of a query on a copy of a database, which is checked first: the programs' own files are never opened. Throws
// std::runtime_error when the file is missing or no sound database.
std::vector<Record> queryCopy(const std::string &database, const std::string &query);

} // namespace wholesystem

#endif
