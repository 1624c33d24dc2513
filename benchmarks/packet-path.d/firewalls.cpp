#include "firewalls.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>

#include "rlv/rlv.h"
#include "rlv/table/rule-text.h"
#include "support/process.h"

namespace packetpath {

namespace {

using Clock = std::chrono::steady_clock;

const char *chainOf(const Rules &rules) {
    const bool accepts = !rules.empty() && rules.front().target.kind == rlv::Target::Kind::accept;
    return accepts ? "VPK-ALLOW" : "VPK-DENY";
}

// ---- by rlvd --------------------------------------------------------------------------------------------------------

// All that is sent on it comes into force at its end, at once.
class Connection {
public:
    Connection() {
        const bool connected = process::waitUntil([&] { return rlv_initialize(&handle_) == 0; });
        if (!connected)
            throw std::runtime_error("rlvd takes no connection");
    }
    ~Connection() {
        if (handle_ != 0)
            (void)rlv_deinitialize(handle_);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void command(const std::string &options) const {
        int code = 0;
        char *message = nullptr;
        const int failure = rlv_iptables_commit(handle_, options.c_str(), &code, &message);
        const std::string said = message != nullptr ? message : "";
        std::free(message);
        if (failure != 0 || code != 0)
            throw std::runtime_error("rlvd: " + options + ": " + said);
    }
    void close() {
        const int failure = rlv_deinitialize(std::exchange(handle_, 0));
        if (failure != 0)
            throw std::runtime_error("rlvd could not bring the rules into force: " + std::to_string(failure));
    }

private:
    rlv_handle handle_ = 0;
};

std::string besideThisProgram(const char *name) {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name).string();
}

std::string portsOf(const char *option, const std::optional<rlv::PortRange> &ports) {
    if (!ports)
        return "";
    return std::string(option) + " " + std::to_string(ports->first) + ":" + std::to_string(ports->last) + " ";
}

// Commands have the words of a rule in another order than iptables shows them.
std::string commandFor(const rlv::Rule &rule) {
    rlv::Rule protocol;
    protocol.protocol = rule.protocol;
    rlv::Rule addresses;
    addresses.source = rule.source;
    addresses.destination = rule.destination;
    rlv::Rule end;
    end.target = rule.target;
    return rlv::describeMatch(protocol) + rlv::describeMatch(addresses) + portsOf("--sport", rule.sourcePorts) +
           portsOf("--dport", rule.destinationPorts) + rlv::describe(end);
}

void sendAll(const Rules &rules) {
    Connection connection;
    for (const char *chain : {"VPK-ALLOW", "VPK-DENY", "VPK-LOGANDDROP"})
        connection.command(std::string("-N ") + chain);
    connection.command("-F VPK-DENY"); // from here on nothing is in force before the end
    connection.command("-A VPK-LOGANDDROP -j DROP");
    for (const char *hook : {"INPUT", "OUTPUT"}) {
        for (const char *chain : {"VPK-ALLOW", "VPK-DENY"})
            connection.command(std::string("-A ") + hook + " -j " + chain);
    }
    const std::string append = std::string("-A ") + chainOf(rules) + " ";
    for (const rlv::Rule &rule : rules)
        connection.command(append + commandFor(rule));
    connection.close();
}

// ---- texts ----------------------------------------------------------------------------------------------------------

std::string sourceOf(const rlv::Rule &rule) {
    if (!rule.source || rule.destination || rule.protocol || rule.sourcePorts || rule.destinationPorts)
        throw std::invalid_argument("only rules about sources can be given to this firewall: " + rlv::describe(rule));
    const std::uint32_t address = rule.source->address;
    std::string text;
    for (const unsigned shift : {24U, 16U, 8U, 0U})
        text += std::to_string(address >> shift & 0xff) + (shift == 0 ? "/" : ".");
    return text + std::to_string(rule.source->prefixLength);
}

std::size_t countOf(const std::string &text, const std::string &wanted) {
    std::size_t count = 0;
    for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + wanted.size()))
        ++count;
    return count;
}

void mustHave(const std::string &shown, const std::string &sign, std::size_t rules, const char *who) {
    const std::size_t count = countOf(shown, sign);
    if (count != rules)
        throw std::runtime_error(std::string(who) + " left " + std::to_string(count) + " of " + std::to_string(rules) +
                                 " rules in the kernel");
}

void mustHaveOurs(const Host &host, const Rules &rules, const char *who) {
    if (rules.empty())
        return;
    const bool accepts = rules.front().target.kind == rlv::Target::Kind::accept;
    mustHave(host.runThere({"iptables", "-S"}), accepts ? "-j ACCEPT\n" : "-j VPK-LOGANDDROP\n", rules.size(), who);
}

} // namespace

void fillByOurs(const Host &host, const Rules &rules, std::size_t treeFrom) {
    const std::vector<std::string> words{besideThisProgram("rlvd"), "--no-resolve", "--tree-from",
                                         std::to_string(treeFrom),  "--log-file",   "/run/" + host.name() + ".log"};
    process::Child service = host.visit([&] { return process::Child(words); });
    sendAll(rules);
    if (service.terminate() != 0)
        throw std::runtime_error("rlvd did not end well: " + service.errors());
    mustHaveOurs(host, rules, "rlvd");
}

std::size_t chainsIn(const Host &host) { return countOf(host.runThere({"iptables", "-S"}), "-N VPK-DENY"); }

void fillByIptables(const Host &host, const Rules &rules) {
    rlv::shape::Limits asList;
    asList.treeFrom = 0;
    host.runThere({"iptables-restore"}, restoreText(lay(rules, asList).chains));
    mustHaveOurs(host, rules, "iptables-restore");
}

void fillByNft(const Host &host, const Rules &rules) {
    std::string text = "table ip filter {\n"
                       "chain INPUT { type filter hook input priority filter; policy accept; }\n"
                       "chain OUTPUT { type filter hook output priority filter; policy accept; }\n"
                       "chain VPK-ALLOW { }\n"
                       "chain VPK-LOGANDDROP { counter drop; }\n"
                       "chain VPK-DENY {\n";
    for (const rlv::Rule &rule : rules)
        text += "ip saddr " + sourceOf(rule) + " counter jump VPK-LOGANDDROP\n";
    text += "}\n}\n";
    for (const char *chain : {"VPK-ALLOW", "VPK-DENY"}) {
        for (const char *hook : {"INPUT", "OUTPUT"})
            text += std::string("add rule ip filter ") + hook + " counter jump " + chain + "\n";
    }
    host.runThere({"nft", "-f", "-"}, text);
    mustHave(host.runThere({"nft", "list", "chain", "ip", "filter", "VPK-DENY"}), "jump VPK-LOGANDDROP", rules.size(),
             "nft");
}

Laid lay(const Rules &rules, const rlv::shape::Limits &limits) {
    std::vector<rlv::shape::LogicalRule> logical;
    for (const rlv::Rule &rule : rules)
        logical.push_back({logical.size() + 1, rule});
    Laid laid;
    laid.chains.chain = chainOf(rules);
    rlv::shape::Shape shape(laid.chains.chain, limits);
    rlv::shape::Id next = logical.size() + 1;
    const auto begin = Clock::now();
    (void)shape.update({}, logical, next);
    laid.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    laid.chains.chains = shape.chains();
    laid.longestWalk = shape.longestWalk();
    laid.count = shape.chainCount();
    return laid;
}

std::string restoreText(const Chains &chains) {
    std::string text = "*filter\n:VPK-ALLOW - [0:0]\n:VPK-DENY - [0:0]\n:VPK-LOGANDDROP - [0:0]\n";
    for (const auto &[name, rules] : chains.chains) {
        if (name != chains.chain)
            text += ":" + name + " - [0:0]\n";
    }
    for (const char *hook : {"INPUT", "OUTPUT"})
        text += std::string("-A ") + hook + " -j VPK-ALLOW\n-A " + hook + " -j VPK-DENY\n";
    text += "-A VPK-LOGANDDROP -j DROP\n";
    for (const auto &[name, rules] : chains.chains) {
        for (const auto &rule : rules)
            text += "-A " + name + " " + rlv::describe(*rule.rule) + "\n";
    }
    return text + "COMMIT\n";
}

// ---- ufw and firewalld ----------------------------------------------------------------------------------------------

namespace {

// Their settings are covered with copies, which go with this process's mounts.
constexpr const char *kCover = R"(
for place in "$@"; do
    copy=/run/covers$place
    pristine=/run/pristine$place
    if [ ! -e "$pristine" ]; then
        mkdir -p "$copy" "$pristine"
        cp -a "$place/." "$pristine/"
        mount --bind "$copy" "$place"
    fi
    find "$place" -mindepth 1 -delete
    cp -a "$pristine/." "$place/"
done)";

// Connection tracking would throw frames away whose checksums are wrong.
constexpr const char *kTakeWrongChecksums = "echo 0 >/proc/sys/net/netfilter/nf_conntrack_checksum";

constexpr const char *kStartUfw = R"(
sed -i -e 's/^IPT_SYSCTL=.*/IPT_SYSCTL=/' -e 's/^DEFAULT_INPUT_POLICY=.*/DEFAULT_INPUT_POLICY="ACCEPT"/' /etc/default/ufw
sed -i 's/^ENABLED=.*/ENABLED=yes/' /etc/ufw/ufw.conf
cat >/run/ufw-rules
sed -i '/^### RULES ###/r /run/ufw-rules' /etc/ufw/user.rules
/lib/ufw/ufw-init start)";

constexpr const char *kZoneOfFirewalld = "/etc/firewalld/zones/public.xml";

bool isInstalled(const std::string &program) {
    return process::capture({"sh", "-c", "command -v " + program}).status == 0;
}

void cover(const std::vector<std::string> &places) {
    std::vector<std::string> words{"sh", "-ec", kCover, "cover"};
    words.insert(words.end(), places.begin(), places.end());
    run(words);
}

std::string zoneWith(const Rules &rules) {
    std::string text = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<zone target=\"ACCEPT\">\n<short>Public</short>\n";
    for (const rlv::Rule &rule : rules)
        text += "<rule family=\"ipv4\"><source address=\"" + sourceOf(rule) + "\"/><drop/></rule>\n";
    return text + "</zone>\n";
}

} // namespace

bool isUfwInstalled() { return isInstalled("ufw"); }

bool isFirewalldInstalled() {
    return isInstalled("firewalld") && isInstalled("firewall-cmd") && isInstalled("dbus-daemon");
}

void fillByUfw(const Host &host, const Rules &rules) {
    cover({"/etc/ufw", "/etc/default"});
    std::string text;
    for (const rlv::Rule &rule : rules)
        text += "-A ufw-user-input -s " + sourceOf(rule) + " -j DROP\n";
    host.runThere({"sh", "-ec", kStartUfw}, text);
    host.runThere({"sh", "-ec", kTakeWrongChecksums});
    mustHave(host.runThere({"iptables", "-S", "ufw-user-input"}), "-j DROP\n", rules.size(), "ufw");
}

void fillByFirewalld(const Host &host, const Rules &rules) {
    constexpr process::Duration kPatience{600'000};
    cover({"/etc/firewalld"});
    run({"sh", "-ec", "mkdir -p /run/dbus /run/firewalld /etc/firewalld/zones; cat >\"$1\"", "zone", kZoneOfFirewalld},
        zoneWith(rules));
    process::Child bus({"dbus-daemon", "--system", "--nofork", "--nopidfile"});
    process::waitUntil([] { return std::filesystem::exists("/run/dbus/system_bus_socket"); });
    process::Child daemon = host.visit([] { return process::Child({"firewalld", "--nofork", "--nopid"}); });
    const bool runs = daemon.waitReady(
        [] {
            return process::capture({"firewall-cmd", "--state"}).status == 0;
        },
        kPatience);
    if (!runs)
        throw std::runtime_error("firewalld does not come to run: " + daemon.errors());
    daemon.kill(); // a gentler end would take the rules along
    bus.kill();
    std::filesystem::remove_all("/run/dbus");
    host.runThere({"sh", "-ec", kTakeWrongChecksums});
    mustHave(host.runThere({"nft", "list", "chain", "inet", "firewalld", "filter_IN_public_deny"}), " drop\n",
             rules.size(), "firewalld");
}

} // namespace packetpath
