// The operations that are disturbed, and what each may leave.
#ifndef TESTS_FAULTS_OPERATIONS_H
#define TESTS_FAULTS_OPERATIONS_H

#include <string>
#include <vector>

#include "faults/judge.h"

namespace faults {

// The rules that stand before each operation, as lists for the commands and as rows.
extern const char *const kAllowedBefore;
extern const char *const kDeniedBefore;
const Rows &rowsBefore();

struct Operation {
    const char *name;
    const char *method; // null: the host starts
    std::vector<std::string> arguments;
    bool damagesMain; // before it: the main database is no database any more
    bool reports;     // success means that a report lies in the outbox
    LawfulStates lawful;
};

const std::vector<Operation> &operations();
// Throws std::invalid_argument.
const Operation &operationOf(const std::string &name);

} // namespace faults

#endif
