// The text form of a report: a JSON object with "type", "subtype", "time" and "body". A body that is not UTF-8 stands
// in base64 (RFC 4648, padded), and "encoding" is then "base64".
#ifndef PLATFORM_NYR_COMMON_CLIENT_REPORT_DOCUMENT_H
#define PLATFORM_NYR_COMMON_CLIENT_REPORT_DOCUMENT_H

#include <optional>
#include <string>

#include "nyr-common-client/outbox.h"

namespace nyr {

std::string toDocument(const Report &report);

// Leaves `file` empty. Empty when the text is no report.
std::optional<Report> fromDocument(const std::string &text);

} // namespace nyr

#endif
