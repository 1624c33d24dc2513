#include "cli/json-answer.h"

#include <cstdio>

#include "cli/documents-as-text.h"
#include "cli/session.h"

namespace cli {

void withJsonError(bool asJson, const std::function<void()> &action) try { action(); } catch (const Exit &exit) {
    Json document{{"error", exit.what()}, {"exitStatus", static_cast<int>(exit.status())}};
    if (!exit.findings().empty())
        document["findings"] = Json::parse(exit.findings());
    if (asJson) // what a person has typed may be no UTF-8
        std::printf("%s\n", document.dump(-1, ' ', true, Json::error_handler_t::replace).c_str());
    throw;
}

} // namespace cli
