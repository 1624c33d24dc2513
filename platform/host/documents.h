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
};

// An object:
//   "stored"    the stored status, -1 where none is; "applied" the flag as last applied
//   "inForce"   true when all hooks and chains stand; "missing" an array of those that do not
//   "rules"     {"stored","expected","inForce"}, each {"allow","deny"}: rows, and kernel rules that they make at least
//               and that stand
//   "collector" "off", "running", "stopping" or "dead"; "collectorProblem" one line or empty
//   "lastReport" seconds since the epoch, as text, empty before the first report: the later of the
//               configuration's and the newest statistics report's in the outbox
//   "simulated" true when the traffic-control service only plays; "serviceProblem" why it cannot be asked, or empty:
//               then "inForce" is false and its rules are left out
//   "rebuild"   when the tables are built anew by themselves, and why, or "given up: <reason>" when what was lost was
//               lost again; empty when nothing of the kind is waited for
//   "settingsProblem" what is wrong with the configuration, or with the stored status, or which was put aside; one line
//               or empty
//   "databases" an array of lines: files of damaged databases that lie aside, and what others have changed
//   "databaseProblem" why a database cannot be read now, or empty: then what stands in it is left out
//   "privilegesProblem" what of the file of privileges is void, and why; one line or empty
//   "names"     the host names of rules: {"inUse" their number, "old" those that stand on an old answer, "none" those
//               without any, whose rules are not in force}, the latter two arrays of {"name", "problem" of the last
//               look-up: "failed", "absent" or "tooMany"}, and "old" with "since", when the answer was last confirmed
//               (seconds since the epoch, -1 where that cannot be told), and "allows", false when rules that allow do
//               not use it
//   "families"  "IPv4 only"
// Throws mavo::Exception, which names the file, when the rule database cannot be read.
std::string statusDocument(const HostState &state);

// What could be host names in the stored rules, each once, 4096 at most. Throws as above, and what libmavo throws for a
// database that cannot be opened for a passing reason.
std::vector<std::string> storedNames();

// {"rules":[{"action":"allow" or "deny","protocol","domain","port","direction"}…]} in the database's order. Texts and
// direction as they are stored: empty for any, ports with ":" between them, 1 in, 2 out, 0 both. Throws
// mavo::Exception, or mavo::database::Unavailable, when the rule database cannot be read.
std::string rulesDocument();

// {"reports":[{"file","type","subtype","time","body"}…],"ignored":[names of files that are no reports]}, oldest first.
std::string reportsDocument();

// The hooks and chains of the firewall that `state` lacks, or has in the wrong order.
std::vector<std::string> missingParts(const rlv::ServiceState &state);

} // namespace host

#endif
