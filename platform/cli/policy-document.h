// A policy document, and where in it everything stands.
#ifndef PLATFORM_CLI_POLICY_DOCUMENT_H
#define PLATFORM_CLI_POLICY_DOCUMENT_H

#include <string>
#include <vector>

#include "cli/findings.h"
#include "cli/written-rules.h"

namespace cli {

struct PolicyDocument {
    // What the plugin makes of the entries of "ALLOW": each ends denied.
    std::vector<WrittenRule> rules;
    // What is wrong with the document itself, and what in it has no effect.
    std::vector<Finding> findings;
};

// Whether a text is meant to be one: it begins with "{", or with a comment as JSON has them in places.
bool looksLikePolicy(const std::string &text);

PolicyDocument readPolicyDocument(const std::string &text, const std::string &source);

} // namespace cli

#endif
