// A network namespace in which a test has a packet filter.
#ifndef TESTS_PLATFORM_RLV_TABLE_KERNEL_HOST_H
#define TESTS_PLATFORM_RLV_TABLE_KERNEL_HOST_H

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <sched.h>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/table/netlink.h"
#include "rlv/table/table.h"
#include "support/process.h"
#include "support/unique-fd.h"

namespace kernel {

using support::UniqueFd;
using Words = std::vector<std::string>;

constexpr const char *kOwnNamespace = "/proc/thread-self/ns/net";

inline Words split(const std::string &text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// A network namespace, with a table of ours or with iptables working in it.
class Host {
public:
    Host() {
        const UniqueFd old(::open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
        if (::unshare(CLONE_NEWNET) != 0)
            throw std::system_error(errno, std::generic_category(), "unshare");
        namespace_.reset(::open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
        ::setns(old.get(), CLONE_NEWNET);
    }

    template <typename Action> auto visit(Action action) const {
        const UniqueFd old(::open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(0, ::setns(namespace_.get(), CLONE_NEWNET));
        auto result = action();
        EXPECT_EQ(0, ::setns(old.get(), CLONE_NEWNET));
        return result;
    }

    process::Result run(const Words &words) const {
        return visit([&] { return process::capture(words); });
    }

    process::Result iptables(const std::string &options) const {
        Words words = split(options);
        words.insert(words.begin(), "iptables");
        return run(words);
    }

    void must(const std::string &command) const {
        const auto result = run({"sh", "-c", command});
        EXPECT_EQ(0, result.status) << command << "\n" << result.errors;
    }

    std::string listing() const { return run({"iptables", "-S", "-v"}).output; }

    // Every rule of the filter table as the bytes of its expressions, with its chain in front.
    std::vector<std::string> expressions() const {
        return visit([] {
            std::vector<std::string> rules;
            const auto seen = [&](const nlmsghdr *message) { rules.push_back(chainAndExpressions(message)); };
            EXPECT_TRUE(rlv::Netlink().dump(
                NFT_MSG_GETRULE, [](nlmsghdr *) {}, seen));
            return rules;
        });
    }

    std::unique_ptr<rlv::Table> openTable() const {
        return visit([] { return rlv::openKernelTable("VPK-"); });
    }

private:
    static int keepAttribute(const nlattr *attribute, void *to) {
        const std::uint16_t type = mnl_attr_get_type(attribute);
        const auto *const bytes = static_cast<const char *>(mnl_attr_get_payload(attribute));
        if (type == NFTA_RULE_CHAIN || type == NFTA_RULE_EXPRESSIONS || type == NFTA_RULE_USERDATA)
            static_cast<std::string *>(to)->append(bytes, mnl_attr_get_payload_len(attribute));
        return MNL_CB_OK;
    }

    static std::string chainAndExpressions(const nlmsghdr *message) {
        std::string text;
        mnl_attr_parse(message, sizeof(nfgenmsg), keepAttribute, &text);
        return text;
    }

    UniqueFd namespace_;
};

} // namespace kernel

#endif
