// Files that lie in the outbox, and reports with any body.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/require.h"
#include "nyr-common-client/report-document.h"

namespace {

bool areSame(const nyr::Report &left, const nyr::Report &right) {
    return left.type == right.type && left.subtype == right.subtype && left.time == right.time &&
           left.body == right.body;
}

void checkWritten(const nyr::Report &report, const std::string &bytes) {
    const auto again = nyr::fromDocument(nyr::toDocument(report));
    fuzz::require(again && areSame(*again, report), "a report is read as it was written", bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    if (const auto report = nyr::fromDocument(bytes))
        checkWritten(*report, bytes);
    nyr::Report report;
    report.type = static_cast<int>(size);
    report.time = -static_cast<std::int64_t>(size);
    report.body = bytes;
    checkWritten(report, bytes);
    return 0;
}
