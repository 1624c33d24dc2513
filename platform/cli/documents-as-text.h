// The host's documents for a person to read.
#ifndef PLATFORM_CLI_DOCUMENTS_AS_TEXT_H
#define PLATFORM_CLI_DOCUMENTS_AS_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace cli {

// A parser that is part of the program: nothing else in it needs a library to be loaded.
using Json = nlohmann::json;

// Throws Exit when the text is not a JSON object.
Json parseDocument(const std::string &written);

// Writes a document to standard output: as it is, on one line, or as text, where broken lines go on at `indent`.
void showDocument(const std::string &document, bool asJson, std::string (*asText)(const Json &), std::size_t indent);

// Seconds since the epoch as a local time.
std::string localTime(std::int64_t seconds);

constexpr std::size_t kStatusIndent = 13; // where the second column of the status begins

std::string statusAsText(const Json &document);
// One line for each finding, and the summary.
std::string verificationAsText(const Json &document);
// What the host says that a program which shows the document ends with. `strict` where rules of others before ours
// count.
int exitStatusOf(const Json &document, bool strict);
// One line for each rule, as the arguments of vpkctl exec: "ApplyDenyRules tcp:10.0.0.5:8000-8080:out".
std::string rulesAsText(const Json &document);
std::string reportsAsText(const Json &document);

} // namespace cli

#endif
