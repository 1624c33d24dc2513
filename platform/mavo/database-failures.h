// How often databases have failed their users in this process, for whoever must not take a failure for a success.
#ifndef PLATFORM_MAVO_DATABASE_FAILURES_H
#define PLATFORM_MAVO_DATABASE_FAILURES_H

#include <cstdint>

namespace mavo {
namespace database {

// Executions of statements that failed since the process began: step() threw, or exec() gave false. What fails while a
// database is being opened is not among them.
__attribute__((visibility("default"))) std::uint64_t failedStatements();

} // namespace database
} // namespace mavo

#endif
