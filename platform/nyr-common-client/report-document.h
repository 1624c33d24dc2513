// The text form of a report: a JSON object with "type", "subtype", "time" and "body". The body is UTF-8 where the
// reporter's is, as JSON's is; the bytes of any other stand as they came, which fromDocument() gives back too.
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
