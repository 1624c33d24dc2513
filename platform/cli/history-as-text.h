// The history of changes for a person to read.
#ifndef PLATFORM_CLI_HISTORY_AS_TEXT_H
#define PLATFORM_CLI_HISTORY_AS_TEXT_H

#include <cstddef>
#include <string>

#include "cli/documents-as-text.h"

namespace cli {

constexpr std::size_t kHistoryIndent = 6;

// Some lines for each entry: when and who, what and with which result, which rules came and went.
std::string historyAsText(const Json &document);
// A line for each rule: "+ deny tcp:10.0.0.5:80:out" for one that is stored now and was not then.
std::string differenceAsText(const Json &document);

} // namespace cli

#endif
