// What a program gets that has asked for JSON.
#ifndef PLATFORM_CLI_JSON_ANSWER_H
#define PLATFORM_CLI_JSON_ANSWER_H

#include <functional>

namespace cli {

// Carries out `action`. Where it throws Exit and `asJson` is true, {"error":"…","exitStatus":2}, with "findings" where
// it has some, goes to standard output first, so that a document stands there in any case.
void withJsonError(bool asJson, const std::function<void()> &action);

} // namespace cli

#endif
