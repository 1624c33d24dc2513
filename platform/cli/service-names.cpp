#include "cli/service-names.h"

#include <netdb.h>
#include <netinet/in.h>

#include "cli/lower-case.h"
#include "rlv/table/protocols.h"
#include "rlv/table/rule-words.h"

namespace cli {
namespace {

std::optional<unsigned> portOf(const std::string &name, const char *protocol) {
    for (const std::string &spelling : {name, lowerCase(name)}) {
        const auto *const service = ::getservbyname(spelling.c_str(), protocol);
        if (service != nullptr)
            return ntohs(static_cast<std::uint16_t>(service->s_port));
    }
    return std::nullopt;
}

// A rule for any protocol can have no port; which one the name has is told all the same, and the rule is refused for
// it.
std::optional<unsigned> portOf(const std::string &name, const rules::Rule &rule) {
    if (rule.protocol.empty())
        return portOf(name, nullptr);
    const auto protocol = rlv::parseProtocol(rule.protocol);
    return protocol ? portOf(name, rlv::protocolName(*protocol).c_str()) : std::nullopt;
}

} // namespace

std::optional<Numbered> numbered(const rules::ReadRule &read) {
    const auto fields = rules::fieldsOf(read.text);
    if (!read.problem || fields.size() < 3 || read.problem->refused.empty() || read.problem->refused != fields[2] ||
        read.problem->offset != static_cast<std::size_t>(fields[2].data() - read.text.data()))
        return std::nullopt;
    const auto port = portOf(read.problem->refused, read.rule);
    if (!port)
        return std::nullopt;
    std::string text(read.text);
    text.replace(read.problem->offset, read.problem->refused.size(), std::to_string(*port));
    return Numbered{text, read.problem->refused, std::to_string(*port)};
}

} // namespace cli
