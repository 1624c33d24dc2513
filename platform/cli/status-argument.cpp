#include "cli/status-argument.h"

#include <charconv>

#include "cli/session.h"

namespace cli {
namespace {

constexpr const char *kStatuses = "1 enables the plugin, 0 disables it";

}

int statusFrom(const std::string &word) {
    int status = 0;
    const char *const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, status);
    if (read.ec != std::errc() || read.ptr != end)
        throw Exit(kNotCarriedOut, "\"" + word + "\" is no status: " + kStatuses);
    return status;
}

std::string refusedStatus(int status) {
    return "the plugin refuses the status " + std::to_string(status) + ": " + kStatuses;
}

} // namespace cli
