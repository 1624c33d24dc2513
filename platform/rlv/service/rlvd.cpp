// rlvd, the traffic-control service.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/stat.h>

#include "rlv/client-socket.h"
#include "rlv/rlv-query.h"
#include "rlv/service/served-tables.h"
#include "rlv/service/service-log.h"
#include "rlv/service/service-socket.h"
#include "rlv/service/service.h"
#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/transactional-table.h"
#include "support/command-line.h"
#include "support/directories.h"
#include "support/readiness.h"
#include "support/signals.h"
#include "support/unix-socket.h"
#include "vlog/log-options.h"

namespace {

constexpr const char *kDescription =
    "The traffic-control service: applies iptables commands for the policy host.\n"
    "\n"
    "It is the one program that changes the kernel's packet filter. Clients reach it through librlv-client; it takes\n"
    "-F, -N, -X, -A and -D on chains with its prefix, and in INPUT and OUTPUT only -A and -D of a jump to such a\n"
    "chain, all in the IPv4 filter table. It serves root and the accounts named with --client-user.";

constexpr const char *kExamples =
    "Examples:\n"
    "  rlvd --client-user vpkd   serve the account vpkd beside root\n"
    "  rlvd --remove-tables      take its hooks and chains out of the kernel again\n"
    "  rlvd --simulate --client-user \"$USER\" --socket ~/rlvd --log-stderr\n"
    "                            try things out, without a kernel and without being root\n"
    "\n"
    "SIGTERM and SIGINT end the service; the rules stay in force. Started by a service manager, it reports\n"
    "READY=1 to $NOTIFY_SOCKET when clients can connect.";

// The connection that is open when it is told ends first.
constexpr std::chrono::seconds kRemovalTimeout{30};

struct Arguments {
    std::string socket = rlv::kDefaultSocketPath;
    std::vector<std::string> clientUsers;
    std::string socketGroup;
    vlog::LogOptions log;
    bool noResolve = false;
    bool removeTables = false;
    bool noRepair = false;
    long idleSeconds = 600;
    long refreshSeconds = 300;
    rlv::ServiceOptions service;
};

// Empty when there is nothing wrong.
std::string faultOfSocketPath(const std::string &path) {
    return support::UnixAddress::ofPath(path)
               ? ""
               : "must be a path of 1 to " + std::to_string(support::UnixAddress::kMaxBytes) + " bytes";
}

void addServingOptions(CLI::App &app, Arguments &arguments) {
    auto &service = arguments.service;
    app.add_option("--socket", arguments.socket, "Where clients connect (mode 0660)")
        ->check(&faultOfSocketPath)
        ->capture_default_str();
    app.add_option("--client-user", arguments.clientUsers, "An account to serve beside root; may be given repeatedly")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_option("--socket-group", arguments.socketGroup,
                   "The group of the socket; if not given, that of the first --client-user")
        ->type_name("NAME");
    app.add_option("--max-clients", service.maxClients, "How many clients are served at a time")
        ->check(CLI::Range(1, 512))
        ->capture_default_str();
    app.add_option("--max-clients-per-user", service.maxClientsPerUser, "How many of them of one account")
        ->check(CLI::Range(1, 512))
        ->capture_default_str();
    app.add_option("--idle-timeout", arguments.idleSeconds, "After how many seconds a silent connection is cut off")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
}

// A prefix that a built-in chain has would open that chain to -F. Empty when there is nothing wrong.
std::string faultOfPrefix(const std::string &prefix) {
    constexpr std::size_t kMaxBytes = 20;
    const auto allowed = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
    };
    const bool plain = !prefix.empty() && prefix.size() <= kMaxBytes &&
                       std::isalpha(static_cast<unsigned char>(prefix[0])) != 0 &&
                       std::all_of(prefix.begin(), prefix.end(), allowed);
    if (!plain)
        return "must be 1 to 20 letters, digits, - and _, the first a letter";
    for (const std::string_view builtIn : {"INPUT", "FORWARD", "OUTPUT", "PREROUTING", "POSTROUTING"}) {
        if (builtIn.substr(0, prefix.size()) == prefix)
            return "must not be what the name of a built-in chain begins with";
    }
    return {};
}

void addTableOptions(CLI::App &app, Arguments &arguments) {
    app.add_option("--chain-prefix", arguments.service.chainPrefix, "The chains that may be changed begin with this")
        ->check(&faultOfPrefix)
        ->capture_default_str();
    app.add_flag("--no-resolve", arguments.noResolve, "Refuse host names in place of addresses");
    app.add_option("--names-file", arguments.service.names.file,
                   "Keep the answers of name servers in this file; if not given, in memory alone");
    app.add_option("--refresh-names", arguments.refreshSeconds,
                   "After how many seconds a host name in use is looked up again")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
    app.add_flag("--simulate", arguments.service.simulated, "Keep the chains in memory; the kernel is not touched");
    app.add_option("--tree-from", arguments.service.treeFrom,
                   "Chains of more rules with one target lie in the kernel as trees of sub-chains; 0: none does")
        ->check(CLI::Range(std::size_t{0}, rlv::kMaxRules))
        ->capture_default_str();
    app.add_flag("--no-repair", arguments.noRepair,
                 "Only tell of what others change in the chains and hooks, do not put it back");
    app.add_flag(
        "--remove-tables", arguments.removeTables,
        "Take the hooks and the chains with the prefix out of the kernel, and exit; a service that runs forgets "
        "them");
}

void addLoggingOptions(CLI::App &app, Arguments &arguments) {
    vlog::addLogOptions(app, arguments.log);
    app.add_flag("--verbose", arguments.service.logAccepted, "Log accepted commands too, not only refused ones");
}

// A number that is too large is another account's when it is cut off.
std::optional<uid_t> accountNumber(const std::string &word) {
    uid_t number = 0;
    const char *const wordEnd = word.data() + word.size();
    const auto [end, error] = std::from_chars(word.data(), wordEnd, number);
    return error == std::errc() && end == wordEnd ? std::optional(number) : std::nullopt;
}

// An account's number is as good as its name.
const passwd &account(const std::string &name) {
    const passwd *found = ::getpwnam(name.c_str());
    const auto number = accountNumber(name);
    if (found == nullptr && number)
        found = ::getpwuid(*number);
    if (found == nullptr)
        throw std::runtime_error("--client-user " + name + ": no such account");
    return *found;
}

gid_t resolveAccounts(Arguments &arguments) {
    std::optional<gid_t> group;
    for (const auto &name : arguments.clientUsers) {
        const passwd &user = account(name);
        arguments.service.users.insert(user.pw_uid);
        group = group.value_or(user.pw_gid);
    }
    if (!arguments.socketGroup.empty()) {
        const struct group *named = ::getgrnam(arguments.socketGroup.c_str());
        if (named == nullptr)
            throw std::runtime_error("--socket-group " + arguments.socketGroup + ": no such group");
        group = named->gr_gid;
    }
    return group.value_or(::getegid());
}

std::unique_ptr<rlv::Table> openTable(const rlv::ServiceOptions &options) {
    auto backend = options.simulated ? rlv::makeSimulatedBackend() : rlv::openKernelBackend(options.chainPrefix);
    rlv::shape::Limits limits;
    limits.treeFrom = options.treeFrom;
    return std::make_unique<rlv::TransactionalTable>(
        rlv::makeShapedBackend(std::move(backend), options.chainPrefix, limits), options.chainPrefix);
}

// One that runs would put everything back: it takes out what it has made, and forgets it. One that serves others is
// none of ours. An older one does not understand that, and puts nothing back.
rlv::Answer removeByService(const std::string &socket, const rlv::ServedTables &tables) {
    const auto deadline = rlv::client::Clock::now() + kRemovalTimeout;
    support::UniqueFd fd;
    rlv::client::Outcome outcome;
    outcome.error = rlv::client::connectTo(socket, deadline, fd);
    if (outcome.error == ENOENT || outcome.error == ECONNREFUSED)
        return {};
    if (outcome.error == 0) {
        const auto kind = rlv::protocol::Reply::Kind::committed;
        outcome = rlv::client::ask(fd.get(), rlv::removalOf(tables), kind, deadline);
    }
    if (outcome.error == EPROTO || outcome.error == ENOENT)
        return {};
    if (outcome.error == 0)
        return {outcome.reply.code, outcome.reply.text};
    const std::string why = outcome.reply.text.empty() ? "" : ": " + outcome.reply.text;
    throw std::system_error(outcome.error, std::generic_category(),
                            "the service that runs at " + socket + " does not take them out" + why);
}

// What a service could not take out it puts back: to take it out here as well would begin a fight.
rlv::Answer removeTables(const std::string &socket, const rlv::ServiceOptions &service) {
    rlv::Answer answer = removeByService(socket, rlv::ServedTables::here(service.chainPrefix, service.simulated));
    return answer.code != 0 ? answer : openTable(service)->removeAll();
}

int removeTables(const Arguments &arguments) {
    const rlv::Answer answer = removeTables(arguments.socket, arguments.service);
    RLVD_INFO("hooks and chains taken out: %s", answer.code == 0 ? "all" : answer.message.c_str());
    if (answer.code == 0)
        return EXIT_SUCCESS;
    std::fprintf(stderr, "rlvd: %s\n", answer.message.c_str());
    return EXIT_FAILURE;
}

int serve(Arguments &arguments) {
    const gid_t group = resolveAccounts(arguments);
    const support::UniqueFd stopSignals = support::receiveSignals({SIGTERM, SIGINT, SIGHUP});
    if (arguments.socket == rlv::kDefaultSocketPath)
        support::makeDirectory(arguments.socket.substr(0, arguments.socket.find_last_of('/')), 0755);
    const auto table = openTable(arguments.service);
    rlv::ServiceState readable;
    table->describe(readable); // throws now, rather than failing every client, without the privilege or nf_tables
    rlv::ServiceSocket socket(arguments.socket, group);
    support::EventLoop loop;
    const rlv::Service service(loop, *table, socket.takeListener(), arguments.service);
    int signalNumber = 0;
    loop.watch(stopSignals.get(), EPOLLIN, [&](std::uint32_t) {
        signalNumber = support::takeSignal(stopSignals);
        loop.stop();
    });
    RLVD_INFO("serving %s, chains %s*%s", arguments.socket.c_str(), arguments.service.chainPrefix.c_str(),
              arguments.service.simulated ? ", simulated" : "");
    if (!support::tellReady())
        RLVD_ERROR("the service manager cannot be told that the service is ready: %s", std::strerror(errno));
    loop.run();
    RLVD_INFO("ended by signal %d", signalNumber);
    return EXIT_SUCCESS;
}

// Descriptors 0 to 2 must be somebody's, or a socket gets their number.
void fillStandardStreams() {
    int fd = 0;
    while ((fd = ::open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) {
    }
    ::close(fd);
}

int run(Arguments &arguments) {
    try {
        arguments.service.resolveNames = !arguments.noResolve;
        arguments.service.isMending = !arguments.noRepair;
        arguments.service.maxIdle = std::chrono::seconds(arguments.idleSeconds);
        arguments.service.names.refresh = std::chrono::seconds(arguments.refreshSeconds);
        arguments.service.patience = std::min(arguments.service.patience, arguments.service.maxIdle);
        vlog::chooseLog(arguments.log, "rlvd");
        return arguments.removeTables ? removeTables(arguments) : serve(arguments);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "rlvd: %s\n", error.what());
        if (!arguments.log.toStandardError)
            RLVD_ERROR("ended: %s", error.what());
        return EXIT_FAILURE;
    }
}

int parseAndRun(int argc, char **argv) {
    Arguments arguments;
    CLI::App app(kDescription, "rlvd");
    app.footer(kExamples);
    app.set_version_flag("--version", "rlvd " NYR_VERSION);
    addServingOptions(app, arguments);
    addTableOptions(app, arguments);
    addLoggingOptions(app, arguments);
    const auto ended = support::parseCommandLine(app, argc, argv);
    return ended ? *ended : run(arguments);
}

} // namespace

int main(int argc, char **argv) {
    try {
        fillStandardStreams();
        ::signal(SIGPIPE, SIG_IGN);
        return parseAndRun(argc, argv);
    } catch (...) { // exhausted memory is all that is left
        return EXIT_FAILURE;
    }
}
