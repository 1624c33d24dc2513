// What the host tells about itself, the rules and the reports, as JSON on one line.
#ifndef PLATFORM_HOST_DOCUMENTS_H
#define PLATFORM_HOST_DOCUMENTS_H

#include <optional>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"

namespace host {

// What the host alone knows of itself.
struct HostState {
    std::optional<int> stored; // the stored status, -1 where none is; nothing: it cannot be read now
    int applied = -1;          // the status as last applied
    std::string collectorProblem;
    std::string rebuild;
    std::string databaseProblem;
    std::string privilegesProblem;
    rlv::NamesState names;
    std::string historyProblem = {};
};

// An object:
//   "stored"    the stored status, -1 where none is; "applied" the flag as last applied
//   "inForce"   true when all that is stored stands in the kernel as it should, and nothing else where only that
//               should; "summary" the same in a line; "exitStatus" what a program that shows it ends with,
//               "strictExitStatus" the same where rules of others before ours count
//   "differences" how many; "shadowed" how many rules of others decide before ours; "twice" how many rules stand once
//               more than stored; "unanswered" how many have a host name without an address
//   "findings"  an array of all these, the first 1,000 of each kind: {"kind","chain","rule","advice"} (see Finding)
//   "rules"     {"stored","expected","inForce","longestWalk"}, each {"allow","deny"}: rows, kernel rules that they
//   make,
//               those of them that stand, and the most that a packet looks at in the chain, branches to sub-chains
//               included; what is not known is left out
//   "collector" "off", "running", "stopping" or "dead"; "collectorProblem" one line or empty
//   "lastReport" seconds since the epoch, as text, empty before the first report: the later of the
//               configuration's and the newest statistics report's in the outbox
//   "simulated" true when the traffic-control service only plays; "serviceProblem" why it cannot be asked, or empty:
//               then "inForce" is false
//   "others"    what other programs have done to our part of the tables: {"repairs" how often it was put back,
//               "isRepairing" false where it is only told of, "problem" why not all is as it was, or empty,
//               "nextAttemptSeconds" where somebody fights back, else -1, "processName" and "process" who did it last
//               as far as the kernel tells, "differences" how many there were then, "last" an array of the first ten}
//   "rebuild"   when the tables are built anew by themselves, and why, or "given up: <reason>" when what was lost was
//               lost again; empty when nothing of the kind is waited for
//   "settingsProblem" what is wrong with the configuration, or with the stored status, or which was put aside; one line
//               or empty
//   "databases" an array of lines: files of damaged databases that lie aside, what others have changed, and why the
//               history cannot be written
//   "databaseProblem" why a database cannot be read now, or empty: then what stands in it is left out
//   "privilegesProblem" what of the file of privileges is void, and why; one line or empty
//   "names"     the host names of rules: {"inUse" their number, "old" those that stand on an old answer, "none" those
//               without any, whose rules are not in force}, the latter two arrays of {"name", "problem" of the last
//               look-up: "failed", "absent" or "tooMany"}, and "old" with "since", when the answer was last confirmed
//               (seconds since the epoch, -1 where that cannot be told), and "allows", false when rules that allow do
//               not use it
//   "families"  "IPv4 only"
// With `reading`, the kernel is read where what stands there is only known from what was sent.
std::string statusDocument(const HostState &state, bool reading);

// What could be host names in the stored rules, each once, 4096 at most. Throws as above, and what libmavo throws for a
// database that cannot be opened for a passing reason.
std::vector<std::string> storedNames();

// {"rules":[{"action":"allow" or "deny","protocol","domain","port","direction"}…]} in the database's order. Texts and
// direction as they are stored: empty for any, ports with ":" between them, 1 in, 2 out, 0 both. Throws
// mavo::Exception, or mavo::database::Unavailable, when the rule database cannot be read.
std::string rulesDocument();

// {"reports":[{"file","type","subtype","time","body"}…],"ignored":[names of files that are no reports]}, oldest first.
std::string reportsDocument();

} // namespace host

#endif
