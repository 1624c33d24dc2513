// What is lawful after a fault.
#ifndef TESTS_FAULTS_JUDGE_H
#define TESTS_FAULTS_JUDGE_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "faults/observation.h"

namespace faults {

// The classes of what must not be.
enum class Violation {
    none,
    hung,       // no answer in time
    notUp,      // the host does not come up again
    lost,       // the database is missing, damaged, or holds rules that neither the old nor a new state has
    unsaid,     // success was told, and database or kernel are not what they should be then
    notMended,  // told, but the kernel does not hold what the database does, in time
    backupTorn, // the backup is no sound copy of a lawful state
    late,       // mended, but not within the second
};
const char *nameOf(Violation violation);

// What an operation may leave in the database: the old state first, the new one last, and what lies between where a
// list or a document is applied rule by rule.
using LawfulStates = std::vector<Rows>;

// What came of one operation with a fault.
struct Outcome {
    bool answered = true; // or the connection broke: both are an end of the call
    bool told = false;    // the caller knows that something went wrong
    bool up = true;       // host and service serve in the end
    Observation atReply;  // before the fault's end
    Observation inTheEnd; // when all agreed, or when time was up
    // From the fault's end until all agreed; none: they never did.
    std::optional<std::chrono::milliseconds> mendedAfter;
};

struct Judgement {
    Violation violation = Violation::none;
    std::string text; // of the violation, one line
};

// Database and kernel agree on a lawful state, and so does a whole backup.
bool isWhole(const Observation &seen, const LawfulStates &lawful);

// `most` is what mending may take.
Judgement judge(const LawfulStates &lawful, const Outcome &outcome, std::chrono::milliseconds most);

} // namespace faults

#endif
