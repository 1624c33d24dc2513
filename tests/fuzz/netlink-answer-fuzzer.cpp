// What a kernel may answer: dumps, generations, refusals, whole or damaged, in any order. An input says which operation
// asks, and makes up datagrams message by message.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <endian.h>
#include <exception>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "fuzz/input.h"
#include "fuzz/require.h"
#include "rlv/table/command.h"
#include "rlv/table/rule-expressions.h"
#include "rlv/table/ruleset-backend.h"

namespace {

constexpr int kSocket = 1'000'000;
constexpr std::size_t kMessageBytes = 4096;
constexpr std::size_t kMaxDatagramBytes = 16'384;

// One answer to recvfrom(2): a datagram, or an errno.
struct Answer {
    std::vector<char> bytes;
    int error = 0;
};

struct Kernel {
    std::deque<Answer> answers;
    std::uint32_t sequence = 0; // of the request that was sent last
};

Kernel kernel;

// Messages are made before the request is known that they answer: their sequence numbers count from that one's.
void setSequences(std::vector<char> &bytes) {
    nlmsghdr head{};
    for (std::size_t at = 0; bytes.size() - at >= sizeof head;) {
        std::memcpy(&head, bytes.data() + at, sizeof head);
        head.nlmsg_seq += kernel.sequence;
        std::memcpy(bytes.data() + at, &head, sizeof head);
        const std::size_t size = std::max<std::size_t>(head.nlmsg_len, sizeof head);
        at += std::min((size + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO, bytes.size() - at);
    }
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's words
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd);
extern "C" int __wrap_socket(int domain, int type, int protocol);
extern "C" int __wrap_bind(int fd, const sockaddr *address, socklen_t length);
extern "C" int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t length);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags);
extern "C" ssize_t __wrap_recvfrom(int fd, void *buffer, std::size_t size, int flags, sockaddr *from,
                                   socklen_t *length);
// NOLINTEND(bugprone-reserved-identifier)

int __wrap_close(int fd) { return fd == kSocket ? 0 : __real_close(fd); }
int __wrap_socket(int, int, int) { return kSocket; }
int __wrap_bind(int, const sockaddr *, socklen_t) { return 0; }
int __wrap_setsockopt(int, int, int, const void *, socklen_t) { return 0; }

ssize_t __wrap_sendmsg(int, const msghdr *message, int) {
    ssize_t size = 0;
    for (std::size_t i = 0; i < message->msg_iovlen; ++i)
        size += static_cast<ssize_t>(message->msg_iov[i].iov_len);
    kernel.sequence = static_cast<const nlmsghdr *>(message->msg_iov[0].iov_base)->nlmsg_seq;
    return size;
}

ssize_t __wrap_recvfrom(int, void *buffer, std::size_t size, int, sockaddr *, socklen_t *) {
    Answer answer;
    answer.error = EAGAIN;
    if (!kernel.answers.empty()) {
        answer = std::move(kernel.answers.front());
        kernel.answers.pop_front();
    }
    if (answer.error != 0) {
        errno = answer.error;
        return -1;
    }
    setSequences(answer.bytes);
    std::memcpy(buffer, answer.bytes.data(), std::min(size, answer.bytes.size()));
    return static_cast<ssize_t>(answer.bytes.size());
}

namespace {

using MessageBuffer = std::array<char, kMessageBytes>;

// Makes up the answers. Each step adds a message to the datagram, or does something to it.
class Script {
public:
    explicit Script(fuzz::Input input) : input_(input) {}

    std::deque<Answer> answers() {
        while (!input_.atEnd())
            step(input_.byte());
        endDatagram();
        return std::move(answers_);
    }

private:
    void step(unsigned word) {
        sequenceOffset_ = word >> 6; // the messages of a transaction have numbers of their own
        switch (word & 0xfU) {
        case 0:
            return addRaw();
        case 1:
            return addRule();
        case 2:
            return addChain();
        case 3:
            return addGeneration();
        case 4:
            return addWithError(NLMSG_DONE);
        case 5:
            return addWithError(NLMSG_ERROR);
        case 6:
            return fail(EAGAIN);
        case 7:
            return fail(input_.byte() % 2 == 0 ? ENOBUFS : ENOMEM);
        case 8:
            return edit();
        case 9:
            return datagram_.resize(datagram_.size() - std::min<std::size_t>(datagram_.size(), input_.byte()));
        default:
            return endDatagram();
        }
    }

    template <typename Fill> void add(unsigned type, Fill fill) {
        alignas(nlmsghdr) MessageBuffer buffer{};
        nlmsghdr *const message = mnl_nlmsg_put_header(buffer.data());
        message->nlmsg_type = static_cast<std::uint16_t>(type);
        message->nlmsg_seq = sequenceOffset_;
        message->nlmsg_flags = (flags_ & 1U) != 0 ? NLM_F_DUMP_INTR : NLM_F_MULTI;
        fill(message);
        if (datagram_.size() + message->nlmsg_len <= kMaxDatagramBytes)
            datagram_.insert(datagram_.end(), buffer.data(), buffer.data() + message->nlmsg_len);
    }

    template <typename Fill> void addOfTables(unsigned type, Fill fill) {
        add(NFNL_SUBSYS_NFTABLES << 8 | type, [&](nlmsghdr *message) {
            auto *const family = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
            family->nfgen_family = NFPROTO_IPV4;
            fill(message);
        });
    }

    void addRaw() {
        const auto type = input_.number<std::uint16_t>();
        const std::string_view bytes = input_.take(input_.byte());
        add(type, [&](nlmsghdr *message) {
            std::memcpy(mnl_nlmsg_put_extra_header(message, bytes.size()), bytes.data(), bytes.size());
        });
    }

    void addRule() {
        const auto handle = std::uint64_t{input_.byte()};
        const auto parsed = rlv::parseCommand(std::string(input_.takeUntil('\n')), "VPK-");
        const auto *const command = std::get_if<rlv::Command>(&parsed);
        if (command == nullptr)
            return;
        addOfTables(NFT_MSG_NEWRULE, [&](nlmsghdr *message) {
            mnl_attr_put_u64(message, NFTA_RULE_HANDLE, htobe64(handle));
            rlv::putRule(message, command->rule, command->chain);
        });
    }

    void addChain() {
        const unsigned hook = input_.byte();
        const std::string name(input_.takeUntil('\n').substr(0, 255));
        addOfTables(NFT_MSG_NEWCHAIN, [&](nlmsghdr *message) {
            mnl_attr_put_strz(message, NFTA_CHAIN_TABLE, "filter");
            mnl_attr_put_strz(message, NFTA_CHAIN_NAME, name.c_str());
            mnl_attr_put_u32(message, NFTA_CHAIN_USE, htonl(hook >> 4));
            if ((hook & 8U) == 0)
                return;
            nlattr *const nest = mnl_attr_nest_start(message, NFTA_CHAIN_HOOK);
            mnl_attr_put_u32(message, NFTA_HOOK_HOOKNUM, htonl(hook & 3U));
            mnl_attr_put_u32(message, NFTA_HOOK_PRIORITY, htonl(hook & 4U));
            mnl_attr_nest_end(message, nest);
            mnl_attr_put_strz(message, NFTA_CHAIN_TYPE, "filter");
        });
    }

    void addGeneration() {
        const std::uint32_t number = input_.byte();
        addOfTables(NFT_MSG_NEWGEN, [&](nlmsghdr *message) { mnl_attr_put_u32(message, NFTA_GEN_ID, htonl(number)); });
        endDatagram();
    }

    // Of a dump that is over, or of a request that is refused; without an error it is the acknowledgement.
    void addWithError(unsigned type) {
        const std::int32_t error = -static_cast<std::int32_t>(input_.byte());
        add(type, [&](nlmsghdr *message) {
            nlmsgerr answer{};
            answer.error = error;
            std::memcpy(mnl_nlmsg_put_extra_header(message, sizeof answer), &answer, sizeof answer);
        });
        endDatagram();
    }

    void fail(int error) {
        endDatagram();
        answers_.push_back({{}, error});
    }

    void edit() {
        flags_ = input_.byte();
        const std::size_t at = input_.number<std::uint16_t>();
        const char byte = static_cast<char>(input_.byte());
        if (at < datagram_.size())
            datagram_[at] = byte;
    }

    void endDatagram() {
        if (!datagram_.empty())
            answers_.push_back({std::exchange(datagram_, {}), 0});
    }

    fuzz::Input input_;
    std::deque<Answer> answers_;
    std::vector<char> datagram_;
    unsigned sequenceOffset_ = 0;
    unsigned flags_ = 0;
};

std::optional<rlv::Rule> writtenAndRead(const rlv::Rule &rule) {
    alignas(nlmsghdr) MessageBuffer buffer{};
    nlmsghdr *const message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWRULE;
    mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg));
    rlv::putRule(message, rule, "VPK-A");
    return rlv::decode(rlv::Attributes::of(message));
}

// What is taken for a rule of ours is one: written by us it reads the same.
void checkRuleset(const rlv::Ruleset &ruleset) {
    for (const auto &[name, chain] : ruleset.chains) {
        for (const rlv::StandingRule &standing : chain.rules) {
            if (standing.rule)
                fuzz::require(writtenAndRead(*standing.rule) == standing.rule, "a rule that is read can be written",
                              name);
        }
    }
}

void commitSome(rlv::RulesetBackend &backend, bool isDryRun) {
    const std::string chain = "VPK-A";
    const std::string base = "INPUT";
    rlv::Rule rule;
    rule.target.kind = rlv::Target::Kind::drop;
    using Kind = rlv::Change::Kind;
    const rlv::Changes changes{{Kind::addTable, nullptr, nullptr, 0},  {Kind::addBaseChain, &base, nullptr, 0},
                               {Kind::addChain, &chain, nullptr, 0},   {Kind::flushChain, &chain, nullptr, 0},
                               {Kind::insertRule, &chain, &rule, 7},   {Kind::appendRule, &chain, &rule, 0},
                               {Kind::deleteRule, &chain, nullptr, 9}, {Kind::deleteChain, &chain, nullptr, 0}};
    const auto failures = isDryRun ? backend.dryRun(changes) : backend.commit(changes, 1);
    for (const rlv::ChangeFailure &failure : failures)
        fuzz::require((!failure.index || *failure.index < changes.size()) && failure.error != 0,
                      "a refusal is one of a change");
}

void operate(rlv::RulesetBackend &backend, unsigned operation) {
    switch (operation % 8) {
    case 0:
        backend.generation();
        return;
    case 1:
        backend.readHandles("VPK-A", 1);
        return;
    case 2:
        return commitSome(backend, true);
    case 3:
        return commitSome(backend, false);
    case 4:
        if (const auto ruleset = backend.readInParts())
            checkRuleset(*ruleset);
        return;
    default:
        if (const auto ruleset = backend.read())
            checkRuleset(*ruleset);
        return;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const unsigned operations = input.byte();
    kernel = Kernel();
    kernel.answers = Script(input).answers();
    const auto backend = rlv::openKernelBackend("VPK-");
    for (const unsigned operation : {operations & 0xfU, operations >> 4}) {
        try {
            operate(*backend, operation);
        } catch (const std::system_error &) {
            // The kernel is not understood, or gives no answer; the next operation begins anew.
        }
    }
    return 0;
}
