// compare-floor deny|allow LOG FILE: the least that storing and enforcing a list of rules can cost.
//
// It does what compare-engine does with the same words, in one loop, with SQLite, libmnl and libnftnl alone: no engine,
// no log library, no traffic-control service, no command texts parsed, no answers. What it counts, in this order:
//   - the database opened as the engine opens it: busy time-out, "journal_mode=PERSIST", "synchronous=FULL", the file
//     read and hashed, "CREATE TABLE IF NOT EXISTS", its prepared statements; once more read and hashed at the end;
//   - for each rule: the look-up of what is stored for it; its insert, a transaction of its own with its flushes to the
//     disk, the folder's among them the first time alone; the copy of the database file to the backup, which is cut to
//     nothing first;
//   - for each rule that turns a stored one into its opposite: a second opening, without the hash, and the whole table
//     read in pages of 1,000;
//   - every log line that the engine writes, formatted and with the time, one write(2) each, the file renamed at 1 MiB
//     as the engine's is (not with COMPARE_WHOLE_LOG set);
//   - one kernel transaction at the end: new rules appended, turned ones deleted by handle and appended to the other
//     chain; it waits for the kernel's acknowledgement.
// Not counted: finding the handles of the rules to be deleted, and reading the list's file.
//
// Knows rules with protocol tcp, a plain address, one port and direction "in" only. The chains must stand.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sqlite3.h>
#include <xxhash.h>

namespace {

constexpr const char *kDatabase = "/opt/data/vpk/db/.firewall.db";
constexpr const char *kBackup = "/opt/data/vpk/db/.firewall.db-backup";
constexpr int kPageSize = 1000;

[[noreturn]] void fail(const std::string &what) { throw std::system_error(errno, std::generic_category(), what); }

struct Rule {
    std::string protocol;
    std::string address;
    std::string port;
    bool allowed = false;
};

// "tcp:10.0.0.1:80:in;..."
std::vector<Rule> readList(const std::string &path, bool allowed, std::string &text) {
    std::ifstream file(path);
    std::getline(file, text);
    std::istringstream stream(text);
    std::vector<Rule> rules;
    for (std::string token; std::getline(stream, token, ';');) {
        std::istringstream fields(token);
        Rule rule;
        std::string direction;
        std::getline(fields, rule.protocol, ':');
        std::getline(fields, rule.address, ':');
        std::getline(fields, rule.port, ':');
        std::getline(fields, direction);
        if (rule.protocol != "tcp" || direction != "in")
            throw std::runtime_error("unlike what is counted here: " + token);
        rule.allowed = allowed;
        rules.push_back(rule);
    }
    if (rules.empty())
        throw std::runtime_error(path + " holds no rules");
    return rules;
}

// ---- the log
// ---------------------------------------------------------------------------------------------------------

class Log {
public:
    explicit Log(std::string path) : path_(std::move(path)), whole_(std::getenv("COMPARE_WHOLE_LOG") != nullptr) {
        open();
    }
    ~Log() { ::close(fd_); }
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    // The place in the engine's source is given as it would be, for lines of the same length.
    void command(const std::string &options) {
        print("RlvIptables.cpp: invokeRLVIptablesCommit(14) > \033[36mVPK: invokeRLVIptablesCommit options: ", options);
    }
    void print(const char *head, const std::string &text) {
        begin();
        line_ += head;
        line_ += text;
        line_ += "\033[0m\n";
        if (size_ + line_.size() > kMaxBytes && !whole_)
            rotate();
        if (::write(fd_, line_.data(), line_.size()) != static_cast<ssize_t>(line_.size()))
            fail(path_);
        size_ += line_.size();
    }

private:
    static constexpr std::size_t kMaxBytes = std::size_t{1024} * 1024;

    void open() {
        fd_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0)
            fail(path_);
        size_ = 0;
    }
    void rotate() {
        ::close(fd_);
        if (std::rename(path_.c_str(), (path_ + ".1").c_str()) != 0)
            fail(path_);
        open();
    }
    // Time, priority and process; the date and the time of day are made once a second.
    void begin() {
        std::timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != second_) {
            std::tm local{};
            ::localtime_r(&now.tv_sec, &local);
            second_ = now.tv_sec;
            secondLength_ = std::strftime(head_.data(), head_.size(), "%Y-%m-%d %H:%M:%S", &local);
        }
        const int rest = std::snprintf(head_.data() + secondLength_, head_.size() - secondLength_, ".%03d I %d ",
                                       static_cast<int>(now.tv_nsec / 1'000'000), static_cast<int>(::getpid()));
        line_.assign(head_.data(), secondLength_ + static_cast<std::size_t>(rest));
    }

    std::string path_;
    bool whole_;
    int fd_ = -1;
    std::size_t size_ = 0;
    std::string line_;
    std::array<char, 96> head_{};
    std::time_t second_ = 0;
    std::size_t secondLength_ = 0;
};

// ---- the database
// ----------------------------------------------------------------------------------------------------

class Statement {
public:
    Statement(sqlite3 *database, const char *sql) : database_(database) {
        check(sqlite3_prepare_v2(database_, sql, -1, &statement_, nullptr));
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    void bind(int index, int value) { check(sqlite3_bind_int(statement_, index, value)); }
    void bind(int index, const std::string &value) {
        check(sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_STATIC));
    }
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE)
            check(result);
        return result == SQLITE_ROW;
    }
    void reset() { check(sqlite3_reset(statement_)); }
    int number(int column) const { return sqlite3_column_int(statement_, column); }
    const char *text(int column) const {
        return reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
    }

private:
    void check(int result) const {
        if (result != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(database_));
    }

    sqlite3 *database_;
    sqlite3_stmt *statement_ = nullptr;
};

class Database {
public:
    Database() : handle_(open()) {
        sqlite3_busy_timeout(handle_.get(), 5'000);
        run("PRAGMA journal_mode=PERSIST");
        run("PRAGMA journal_size_limit=65536");
        run("PRAGMA synchronous=FULL");
        run("CREATE TABLE IF NOT EXISTS firewall_rules (protocol TEXT, domain TEXT, port TEXT, direction INTEGER NOT "
            "NULL, is_allowed INTEGER NOT NULL, PRIMARY KEY (protocol, domain, port) ON CONFLICT REPLACE)");
    }

    Statement prepare(const char *sql) { return {handle_.get(), sql}; }

private:
    struct Close {
        void operator()(sqlite3 *handle) const { sqlite3_close_v2(handle); }
    };

    static sqlite3 *open() {
        sqlite3 *handle = nullptr;
        if (sqlite3_open_v2(kDatabase, &handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
            throw std::runtime_error("the database cannot be opened");
        return handle;
    }
    void run(const char *sql) {
        Statement statement(handle_.get(), sql);
        while (statement.step()) {
        }
    }

    std::unique_ptr<sqlite3, Close> handle_;
};

// The folder of the journal need not be flushed again when the journal is the same.
void flushFolderOnce() {
    constexpr const char *kName = "openDirectory";
    using OpenDirectory = int (*)(const char *, int *);
    static sqlite3_vfs *const system = sqlite3_vfs_find(nullptr);
    static auto *const own = reinterpret_cast<OpenDirectory>(system->xGetSystemCall(system, kName));
    static bool flushed = false;
    const OpenDirectory once = [](const char *path, int *fd) {
        return std::exchange(flushed, true) ? SQLITE_CANTOPEN : own(path, fd);
    };
    system->xSetSystemCall(system, kName, reinterpret_cast<sqlite3_syscall_ptr>(once));
}

// Reads and hashes the whole file, in place of checking it.
XXH128_hash_t hashContent() {
    std::vector<char> content;
    const int source = ::open(kDatabase, O_RDONLY | O_CLOEXEC);
    if (source < 0)
        fail(kDatabase);
    content.resize(static_cast<std::size_t>(::lseek(source, 0, SEEK_END)));
    if (::pread(source, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
        fail(kDatabase);
    ::close(source);
    return XXH3_128bits(content.data(), content.size());
}

void writeDigest() {
    const XXH128_hash_t hash = hashContent();
    const std::string path = std::string(kDatabase) + "-floor";
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::write(file, &hash, sizeof hash) != static_cast<ssize_t>(sizeof hash))
        fail(path);
    ::close(file);
}

void copyToBackup() {
    static std::array<char, 65'536> room;
    const int source = ::open(kDatabase, O_RDONLY | O_CLOEXEC);
    const int destination = ::open(kBackup, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (source < 0 || destination < 0)
        fail("backup");
    ssize_t size = 0;
    while ((size = ::read(source, room.data(), room.size())) > 0) {
        if (::write(destination, room.data(), static_cast<std::size_t>(size)) != size)
            fail("backup");
    }
    ::close(source);
    ::close(destination);
}

// The rules in the order in which they are stored.
template <typename Visit> void readPages(Database &database, Visit visit) {
    Statement select = database.prepare("SELECT * FROM firewall_rules LIMIT ? OFFSET ?");
    int offset = 0;
    for (int read = -1; read != 0; offset += read) {
        select.bind(1, kPageSize);
        select.bind(2, offset);
        for (read = 0; select.step(); ++read)
            visit(select);
        select.reset();
    }
}

// ---- the kernel
// ------------------------------------------------------------------------------------------------------

struct FreeRule {
    void operator()(nftnl_rule *rule) const { nftnl_rule_free(rule); }
};
using KernelRule = std::unique_ptr<nftnl_rule, FreeRule>;

KernelRule emptyRule(const char *chain) {
    KernelRule rule(nftnl_rule_alloc());
    nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, NFPROTO_IPV4);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, "filter");
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain);
    return rule;
}

nftnl_expr *add(const KernelRule &rule, const char *name) {
    nftnl_expr *const expression = nftnl_expr_alloc(name);
    nftnl_rule_add_expr(rule.get(), expression);
    return expression;
}

void addCompare(const KernelRule &rule, const void *data, std::uint32_t bytes) {
    nftnl_expr *const compare = add(rule, "cmp");
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_OP, NFT_CMP_EQ);
    nftnl_expr_set(compare, NFTNL_EXPR_CMP_DATA, data, bytes);
}

void addLoad(const KernelRule &rule, std::uint32_t base, std::uint32_t offset, std::uint32_t bytes) {
    nftnl_expr *const load = add(rule, "payload");
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_BASE, base);
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_LEN, bytes);
}

void addVerdict(const KernelRule &rule, bool allowed) {
    add(rule, "counter");
    nftnl_expr *const verdict = add(rule, "immediate");
    nftnl_expr_set_u32(verdict, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(verdict, NFTNL_EXPR_IMM_VERDICT, static_cast<std::uint32_t>(allowed ? NF_ACCEPT : NFT_JUMP));
    if (!allowed)
        nftnl_expr_set_str(verdict, NFTNL_EXPR_IMM_CHAIN, "VPK-LOGANDDROP");
}

const char *chainOf(const Rule &rule) { return rule.allowed ? "VPK-ALLOW" : "VPK-DENY"; }

KernelRule encode(const Rule &source) {
    constexpr std::uint32_t kSourceAddressOffset = 12;
    const std::uint8_t protocol = IPPROTO_TCP;
    const in_addr_t address = ::inet_addr(source.address.c_str());
    const std::uint16_t port = htons(static_cast<std::uint16_t>(std::stoi(source.port)));
    KernelRule rule = emptyRule(chainOf(source));
    nftnl_expr *const load = add(rule, "meta");
    nftnl_expr_set_u32(load, NFTNL_EXPR_META_KEY, NFT_META_L4PROTO);
    nftnl_expr_set_u32(load, NFTNL_EXPR_META_DREG, NFT_REG_1);
    addCompare(rule, &protocol, sizeof protocol);
    addLoad(rule, NFT_PAYLOAD_NETWORK_HEADER, kSourceAddressOffset, sizeof address);
    addCompare(rule, &address, sizeof address);
    addLoad(rule, NFT_PAYLOAD_TRANSPORT_HEADER, 0, sizeof port);
    addCompare(rule, &port, sizeof port);
    addVerdict(rule, source.allowed);
    return rule;
}

class Socket {
public:
    Socket() : socket_(mnl_socket_open(NETLINK_NETFILTER)) {
        if (socket_ == nullptr || mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) != 0)
            fail("netlink");
        const int size = 64 * 1024 * 1024;
        ::setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
    }
    ~Socket() { mnl_socket_close(socket_); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    void send(const void *data, std::size_t bytes) {
        if (mnl_socket_sendto(socket_, data, bytes) < 0)
            fail("netlink");
    }
    // Reads what the kernel answers to message `sequence` until it is all there.
    void receive(std::uint32_t sequence, mnl_cb_t visit, void *data) {
        std::vector<char> room(65'536);
        int more = MNL_CB_OK;
        while (more > MNL_CB_STOP) {
            const ssize_t size = mnl_socket_recvfrom(socket_, room.data(), room.size());
            if (size < 0)
                fail("netlink");
            more = mnl_cb_run(room.data(), static_cast<std::size_t>(size), sequence, mnl_socket_get_portid(socket_),
                              visit, data);
            if (more < 0)
                fail("the kernel refuses");
        }
    }

private:
    mnl_socket *socket_;
};

int keepHandle(const nlmsghdr *message, void *data) {
    const KernelRule rule(nftnl_rule_alloc());
    nftnl_rule_nlmsg_parse(message, rule.get());
    static_cast<std::vector<std::uint64_t> *>(data)->push_back(nftnl_rule_get_u64(rule.get(), NFTNL_RULE_HANDLE));
    return MNL_CB_OK;
}

// The handles of a chain's rules, in order.
std::vector<std::uint64_t> handlesOf(const char *chain) {
    std::array<char, 4096> room{};
    nlmsghdr *const message = nftnl_nlmsg_build_hdr(room.data(), NFT_MSG_GETRULE, NFPROTO_IPV4, NLM_F_DUMP, 1);
    nftnl_rule_nlmsg_build_payload(message, emptyRule(chain).get());
    Socket socket;
    socket.send(message, message->nlmsg_len);
    std::vector<std::uint64_t> handles;
    socket.receive(1, keepHandle, &handles);
    return handles;
}

// One transaction, built as it is filled.
class Transaction {
public:
    Transaction() { at_ = nftnl_batch_begin(room_.get(), sequence_++)->nlmsg_len; }

    void append(const Rule &rule) { put(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, encode(rule)); }
    void remove(const char *chain, std::uint64_t handle) {
        const KernelRule rule = emptyRule(chain);
        nftnl_rule_set_u64(rule.get(), NFTNL_RULE_HANDLE, handle);
        put(NFT_MSG_DELRULE, 0, rule);
    }
    // Returns when the kernel has done it all. There must be a message in it.
    void commit() {
        reinterpret_cast<nlmsghdr *>(room_.get() + last_)->nlmsg_flags |= NLM_F_ACK;
        at_ += nftnl_batch_end(room_.get() + at_, sequence_)->nlmsg_len;
        Socket socket;
        socket.send(room_.get(), at_);
        socket.receive(0, nullptr, nullptr);
    }

private:
    static constexpr std::size_t kRoomBytes = std::size_t{16} * 1024 * 1024;
    static constexpr std::size_t kMessageBytes = 4096; // more than any rule here needs

    void put(std::uint16_t type, std::uint16_t flags, const KernelRule &rule) {
        if (at_ + 2 * kMessageBytes > kRoomBytes)
            throw std::runtime_error("too many rules for one transaction here");
        last_ = at_;
        nlmsghdr *const message = nftnl_nlmsg_build_hdr(room_.get() + at_, type, NFPROTO_IPV4, flags, sequence_++);
        nftnl_rule_nlmsg_build_payload(message, rule.get());
        at_ += message->nlmsg_len;
    }

    std::unique_ptr<char[]> room_{new char[kRoomBytes]}; // NOLINT(*-avoid-c-arrays): not to be filled with zeros
    std::uint32_t sequence_ = 1;
    std::size_t at_ = 0;
    std::size_t last_ = 0;
};

// ---- the work
// --------------------------------------------------------------------------------------------------------

using Key = std::tuple<std::string, std::string, std::string>;
Key keyOf(const Rule &rule) { return {rule.protocol, rule.address, rule.port}; }

// The kernel's handles of the stored deny rules.
std::map<Key, std::uint64_t> storedHandles() {
    const std::vector<std::uint64_t> handles = handlesOf("VPK-DENY");
    std::map<Key, std::uint64_t> byKey;
    std::size_t index = 0;
    Database database;
    readPages(database, [&](const Statement &row) {
        byKey[{row.text(0), row.text(1), row.text(2)}] = handles.at(index++);
    });
    if (index != handles.size())
        throw std::runtime_error("VPK-DENY is not what is stored");
    return byKey;
}

std::string commandOf(const Statement &row) {
    const bool allowed = row.number(4) != 0;
    return std::string(allowed ? "-A VPK-ALLOW -p " : "-A VPK-DENY -p ") + row.text(0) + " -s " + row.text(1) +
           " --sport " + row.text(2) + (allowed ? " -j ACCEPT" : " -j VPK-LOGANDDROP");
}

void readAllAnew(Log &log) {
    log.command("-F VPK-ALLOW");
    log.command("-F VPK-DENY");
    Database database;
    readPages(database, [&](const Statement &row) { log.command(commandOf(row)); });
}

class Work {
public:
    Work(std::map<Key, std::uint64_t> handles, Log &log) : handles_(std::move(handles)), log_(log) {}

    void run(const std::vector<Rule> &rules) {
        flushFolderOnce();
        hashContent();
        {
            Database database;
            Statement lookUp = database.prepare("SELECT direction, is_allowed FROM firewall_rules WHERE protocol = ? "
                                                "AND domain = ? AND port = ?");
            Statement insert = database.prepare("INSERT INTO firewall_rules(protocol, domain, port, direction, "
                                                "is_allowed) VALUES(?, ?, ?, ?, ?)");
            for (const Rule &rule : rules)
                take(rule, lookUp, insert);
        }
        writeDigest();
        log_.print("RlvHandler.cpp: ~RlvHandler(25) > \033[36mVPK: RlvHandler destructor", "");
        transaction_.commit();
    }

private:
    void take(const Rule &rule, Statement &lookUp, Statement &insert) {
        const bool opposite = isOpposite(rule, lookUp);
        if (!opposite)
            log_.command(std::string("-A ") + chainOf(rule) + " -p tcp -s " + rule.address + " --sport " + rule.port +
                         (rule.allowed ? " -j ACCEPT" : " -j VPK-LOGANDDROP"));
        store(rule, insert);
        transaction_.append(rule);
        if (opposite) {
            transaction_.remove("VPK-DENY", handles_.at(keyOf(rule)));
            readAllAnew(log_);
        }
    }
    bool isOpposite(const Rule &rule, Statement &lookUp) {
        lookUp.bind(1, rule.protocol);
        lookUp.bind(2, rule.address);
        lookUp.bind(3, rule.port);
        bool opposite = false;
        if (lookUp.step()) {
            const bool allowed = lookUp.number(1) != 0;
            opposite = allowed != rule.allowed;
            log_.print("firewall-storage.cpp: ifOppositeRuleExists(178) > \033[36mVPK: HI, isAllowed = ",
                       allowed ? "1" : "0");
        }
        lookUp.reset();
        return opposite;
    }
    void store(const Rule &rule, Statement &insert) {
        insert.bind(1, rule.protocol);
        insert.bind(2, rule.address);
        insert.bind(3, rule.port);
        insert.bind(4, 1);
        insert.bind(5, rule.allowed ? 1 : 0);
        insert.step();
        insert.reset();
        copyToBackup();
        log_.print("firewall-storage.cpp: syncBackupDb(106) > \033[36mVPK: db backup was created", "");
    }

    std::map<Key, std::uint64_t> handles_;
    Log &log_;
    Transaction transaction_;
};

double measure(const std::vector<std::string> &words) {
    const bool allow = words.at(0) == "allow";
    std::string text;
    const std::vector<Rule> listed = readList(words.at(2), allow, text);
    auto handles = allow ? storedHandles() : std::map<Key, std::uint64_t>();
    Log log(words[1]);
    const auto start = std::chrono::steady_clock::now();
    if (allow)
        log.print("firewall.cpp: ApplyAllowRules(86) > \033[36mVPK: Firewall::ApplyAllowRules", "");
    else
        log.print("firewall.cpp: ApplyDenyRules(93) > \033[36mVPK: Firewall::ApplyDenyRules: ", text);
    log.print("RlvHandler.cpp: RlvHandler(20) > \033[36mVPK: RlvHandler constructor", "");
    Work(std::move(handles), log).run(listed);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char **argv) try {
    const double seconds = measure(std::vector<std::string>(argv + 1, argv + argc));
    std::printf("%.6f\n", seconds);
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    std::fprintf(stderr, "compare-floor: %s\n", error.what());
    return EXIT_FAILURE;
}
