// What database, backup and kernel hold at a moment.
#ifndef TESTS_FAULTS_OBSERVATION_H
#define TESTS_FAULTS_OBSERVATION_H

#include <string>
#include <vector>

#include "support/firewall-oracle.h"

namespace faults {

using firewall_oracle::Row;
using firewall_oracle::Rows;

// A rule database as its next reader finds it.
struct Stored {
    std::string problem; // empty: a sound database with the table
    Rows rows;           // sorted
};

// The rules of the chains, without "-A chain "; those of allow and deny sorted, the others as they stand.
struct Kernel {
    std::string problem; // the kernel could not be asked
    std::vector<std::string> allow;
    std::vector<std::string> deny;
    std::vector<std::string> logAndDrop;
    std::vector<std::string> input;
    std::vector<std::string> output;
};
bool operator==(const Kernel &left, const Kernel &right);

struct Observation {
    Stored database;
    Stored backup;
    Kernel kernel;
};

// Reads a copy, with its journal; the file itself is not touched.
Stored readStored(const std::string &path);
// Of the caller's network namespace.
Kernel readKernel();
Observation observe();

Rows sorted(Rows rows);
// What stands in the kernel when these rows are in force, and nobody else has a rule.
Kernel kernelOf(const Rows &rows);

// One line each.
std::string textOf(const Rows &rows);
std::string textOf(const Stored &stored);
// What differs, empty when nothing does.
std::string difference(const Kernel &wanted, const Kernel &found);

} // namespace faults

#endif
