#include "support/firewall-oracle.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>
#include <tuple>

namespace firewall_oracle {
namespace {

constexpr int kBadText = 2; // the service's code for what it does not understand
constexpr int kFailure = -1;
constexpr long kLastPort = 65535;
constexpr int kAddressBits = 32;

bool isNumber(const std::string &text, std::size_t mostDigits) {
    return !text.empty() && text.size() <= mostDigits &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> pieces;
    std::size_t from = 0;
    for (std::size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, from)) {
        pieces.push_back(text.substr(from, at - from));
        from = at + 1;
    }
    pieces.push_back(text.substr(from));
    return pieces;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string anyIfStarred(const std::string &text) { return text.find('*') == std::string::npos ? text : ""; }

std::optional<std::string> parsePort(const std::string &text) {
    std::string port;
    for (const char c : text) {
        if (c == '*')
            return "";
        if (c != '-' && std::isdigit(static_cast<unsigned char>(c)) == 0)
            return std::nullopt;
        port += c == '-' ? ':' : c;
    }
    return port;
}

std::optional<Row> parseRule(const std::string &text) {
    static const std::map<std::string, int> directions = {{"bid", 0}, {"in", 1}, {"out", 2}};
    const auto fields = split(text, ':');
    if (fields.size() < 3 || fields.size() > 4)
        return std::nullopt;
    const auto direction = directions.find(fields.size() == 4 ? lower(fields[3]) : "bid");
    const auto port = parsePort(fields[2]);
    if (direction == directions.end() || !port)
        return std::nullopt;
    return Row{anyIfStarred(fields[0]), anyIfStarred(fields[1]), *port, direction->second, 0};
}

// As "iptables -S" names it; "" is any.
std::optional<std::string> kernelProtocol(const std::string &text) {
    static const std::map<std::string, std::string> names = {
        {"", ""},       {"all", ""},      {"0", ""},     {"tcp", "tcp"},   {"6", "tcp"},    {"udp", "udp"},
        {"17", "udp"},  {"icmp", "icmp"}, {"1", "icmp"}, {"sctp", "sctp"}, {"132", "sctp"}, {"dccp", "dccp"},
        {"33", "dccp"}, {"esp", "esp"},   {"50", "esp"}, {"ah", "ah"},     {"51", "ah"}};
    const auto name = names.find(lower(text));
    return name == names.end() ? std::nullopt : std::make_optional(name->second);
}

bool hasPorts(const std::string &protocol) {
    return protocol == "tcp" || protocol == "udp" || protocol == "sctp" || protocol == "dccp";
}

bool isPlain(const std::string &number, std::size_t mostDigits, long most) {
    return isNumber(number, mostDigits) && (number.size() == 1 || number[0] != '0') && std::stol(number) <= most;
}

std::string dotted(unsigned long address) {
    std::ostringstream text;
    text << (address >> 24U) << '.' << (address >> 16U & 255U) << '.' << (address >> 8U & 255U) << '.'
         << (address & 255U);
    return text.str();
}

// "address/length" with the host's bits taken off; "" is any.
std::optional<std::string> kernelAddress(const std::string &text) {
    if (text.empty())
        return "";
    const auto halves = split(text, '/');
    const auto bytes = split(halves[0], '.');
    const std::string length = halves.size() == 2 ? halves[1] : "32";
    if (halves.size() > 2 || bytes.size() != 4 || !isPlain(length, 2, kAddressBits))
        return std::nullopt;
    unsigned long address = 0;
    for (const auto &byte : bytes) {
        if (!isPlain(byte, 3, 255))
            return std::nullopt;
        address = address << 8U | std::stoul(byte);
    }
    const auto bits = std::stoul(length);
    const unsigned long mask = bits == 0 ? 0 : 0xffffffffUL << (32U - bits) & 0xffffffffUL;
    return bits == 0 ? "" : dotted(address & mask) + "/" + length;
}

// "first:last", or "only"; both ends always stand.
std::optional<std::string> kernelPorts(const std::string &text) {
    const auto bounds = split(text, ':');
    if (text.empty() || bounds.size() > 2)
        return std::nullopt;
    const std::string first = bounds.front().empty() ? "0" : bounds.front();
    const std::string last = bounds.back().empty() ? std::to_string(kLastPort) : bounds.back();
    if (!isPlain(first, 5, kLastPort) || !isPlain(last, 5, kLastPort) || std::stol(first) > std::stol(last))
        return std::nullopt;
    return first == last ? first : first + ":" + last;
}

// The whole range of tcp and udp is shown as a match that asks for nothing.
bool isHiddenRange(const std::string &protocol, const std::string &ports) {
    return ports == "0:65535" && (protocol == "tcp" || protocol == "udp");
}

void removeOne(Chain &chain, const std::string &rule) {
    const auto found = std::find(chain.begin(), chain.end(), rule);
    if (found != chain.end())
        chain.erase(found);
}

} // namespace

bool operator==(const Row &left, const Row &right) {
    return std::tie(left.protocol, left.domain, left.port, left.direction, left.isAllowed) ==
           std::tie(right.protocol, right.domain, right.port, right.direction, right.isAllowed);
}

std::ostream &operator<<(std::ostream &stream, const Row &row) {
    return stream << '\'' << row.protocol << "' '" << row.domain << "' '" << row.port << "' direction " << row.direction
                  << (row.isAllowed != 0 ? " allowed" : " denied");
}

std::optional<Rows> parse(const std::string &list) {
    Rows rows;
    auto tokens = split(list, ';');
    if (tokens.back().empty()) // after the last ";", or the whole of an empty list
        tokens.pop_back();
    for (const auto &token : tokens) {
        const auto row = parseRule(token);
        if (!row)
            return std::nullopt;
        rows.push_back(*row);
    }
    return rows;
}

std::optional<std::string> kernelRule(const Row &row, bool inbound, const std::string &target) {
    const auto protocol = kernelProtocol(row.protocol);
    const auto address = kernelAddress(row.domain);
    const auto ports = row.port.empty() ? std::make_optional<std::string>() : kernelPorts(row.port);
    if (!protocol || !address || !ports || (!row.port.empty() && !hasPorts(*protocol)))
        return std::nullopt;
    std::string rule;
    if (!address->empty())
        rule += (inbound ? "-s " : "-d ") + *address + " ";
    if (!protocol->empty())
        rule += "-p " + *protocol + " ";
    if (!ports->empty())
        rule += "-m " + *protocol + " ";
    if (!ports->empty() && !isHiddenRange(*protocol, *ports))
        rule += (inbound ? "--sport " : "--dport ") + *ports + " ";
    return rule + "-j " + target;
}

void Road::start() {
    for (Chain *builtIn : {&input, &output}) {
        for (const char *hook : {"-j VPK-ALLOW", "-j VPK-DENY"}) {
            removeOne(*builtIn, hook);
        }
        builtIn->insert(builtIn->end(), {"-j VPK-ALLOW", "-j VPK-DENY"});
    }
    logAndDrop = {"-j LOG --log-prefix \"IPTables-Dropped:\"", "-j DROP"};
    rebuild();
    enabled_ = stored_ == 1;
}

int Road::append(const Row &row) {
    const bool allowed = row.isAllowed != 0;
    for (const bool inbound : {true, false}) {
        if (row.direction == (inbound ? 2 : 1))
            continue;
        const auto rule = kernelRule(row, inbound, allowed ? "ACCEPT" : "VPK-LOGANDDROP");
        if (!rule)
            return kBadText;
        (allowed ? allow : deny).push_back(*rule);
    }
    return 0;
}

void Road::rebuild() {
    allow.clear();
    deny.clear();
    for (const auto &row : rows_)
        append(row);
}

void Road::save(const Row &row) {
    rows_.erase(std::remove_if(rows_.begin(), rows_.end(),
                               [&row](const Row &other) {
                                   return std::tie(row.protocol, row.domain, row.port) ==
                                          std::tie(other.protocol, other.domain, other.port);
                               }),
                rows_.end());
    rows_.push_back(row);
    backedUp_ = true;
}

int Road::apply(const std::string &list, bool allowed) {
    const auto parsed = parse(list);
    if (!parsed)
        return kFailure;
    for (Row row : *parsed) {
        row.isAllowed = allowed ? 1 : 0;
        const bool opposite = std::any_of(rows_.begin(), rows_.end(), [&row](const Row &other) {
            return std::tie(row.protocol, row.domain, row.port) == std::tie(other.protocol, other.domain, other.port) &&
                   !(row == other);
        });
        const int code = opposite ? 0 : append(row);
        if (code != 0)
            return code;
        save(row);
        if (opposite)
            rebuild();
    }
    return 0;
}

int Road::flush(bool allowed) {
    const auto wanted = [allowed](const Row &row) { return (row.isAllowed != 0) == allowed; };
    rows_.erase(std::remove_if(rows_.begin(), rows_.end(), wanted), rows_.end());
    (allowed ? allow : deny).clear();
    backedUp_ = true;
    return 0;
}

int Road::applyAllow(const std::string &list) { return apply(list, true); }
int Road::applyDeny(const std::string &list) { return apply(list, false); }
int Road::flushAllow() { return flush(true); }
int Road::flushDeny() { return flush(false); }

std::string Road::execute(const std::string &command, const std::string &data) {
    int result = kFailure;
    if (!enabled_)
        result = kFailure;
    else if (command == "ApplyAllowRules" && !data.empty())
        result = applyAllow(data);
    else if (command == "ApplyDenyRules" && !data.empty())
        result = applyDeny(data);
    else if (command == "FlushAllowRules")
        result = flushAllow();
    else if (command == "FlushDenyRules")
        result = flushDeny();
    return result == 0 ? "" : "fail";
}

std::string Road::applyPolicy(const std::vector<std::string> &allowed) {
    std::string list;
    for (const auto &rule : allowed)
        list += rule + ";";
    if (!enabled_)
        return "fail";
    // Both lists that the engine gets are the document's ALLOW list.
    const int first = applyAllow(list);
    return (first | applyDeny(list)) == 0 ? "" : "fail";
}

int Road::setStatus(int status) {
    if (status != 0 && status != 1)
        return kFailure;
    applyStatus(status);
    stored_ = status;
    return 0;
}

void Road::applyStatus(int status) {
    if (status == 0 || status == 1)
        enabled_ = status == 1;
}

void Road::foreignFlush(const std::string &chain) { (chain == "VPK-ALLOW" ? allow : deny).clear(); }

void Road::foreignAppend(const std::string &builtIn, const std::string &rule) {
    (builtIn == "INPUT" ? input : output).push_back(rule);
}

} // namespace firewall_oracle
