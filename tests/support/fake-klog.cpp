#include "support/fake-klog.h"

#include <algorithm>
#include <sys/klog.h>

namespace fakeklog {

std::string content;
std::optional<int> size;
std::optional<int> readResult;
std::vector<Call> calls;

} // namespace fakeklog

extern "C" int klogctl(int action, char *buffer, int length) {
    using namespace fakeklog;
    const bool reads = buffer != nullptr;
    const bool cleared = reads && std::all_of(buffer, buffer + length + 1, [](char c) { return c == '\0'; });
    calls.push_back({action, reads, length, cleared});
    if (action == 10)
        return size.value_or(static_cast<int>(content.size()));
    if (action != 3 || !reads)
        return -1;
    const std::size_t count = std::min(content.size(), static_cast<std::size_t>(length));
    content.copy(buffer, count);
    return readResult.value_or(static_cast<int>(count));
}
