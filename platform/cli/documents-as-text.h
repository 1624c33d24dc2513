// The host's documents for a person to read.
#ifndef PLATFORM_CLI_DOCUMENTS_AS_TEXT_H
#define PLATFORM_CLI_DOCUMENTS_AS_TEXT_H

#include <string>

#include <json/json.h>

namespace cli {

// One line of `text`, its control characters as \xNN: rules and reports may hold anything, and a terminal must not take
// it for orders.
std::string printable(const std::string &text);

// Throws Exit when the text is not a JSON object.
Json::Value parseDocument(const std::string &text);

std::string statusAsText(const Json::Value &document);
// True when the status document says that the whole firewall is known to be in force, and that no rebuild is pending.
bool wholeInForce(const Json::Value &document);
// One line for each rule, as the arguments of vpkctl exec: "ApplyDenyRules tcp:10.0.0.5:8000-8080:out".
std::string rulesAsText(const Json::Value &document);
std::string reportsAsText(const Json::Value &document);

} // namespace cli

#endif
