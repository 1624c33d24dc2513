// One place and kind of fault, which its name tells whole, so that it can be repeated.
#ifndef TESTS_FAULTS_POINT_H
#define TESTS_FAULTS_POINT_H

#include <string>

#include "faults/tracer.h"

namespace faults {

enum class Program { host, service };

// "flush:vpkd:fsync#2=EIO:once", "apply:rlvd:sendmsg#1=ENOMEM:for-good", "reload:vpkd:openat#3:kill",
// "apply:vpkd:memory#120:once", and with "+17" at its end: the 17th call that can fail after the first fault (after a
// kill: of the next start) fails too, once.
struct Point {
    enum class Kind { once, forGood, kill };

    std::string operation;
    Program program = Program::host;
    bool memory = false;
    long call = 0;           // the system call
    unsigned occurrence = 1; // which one of them, or which allocation, from 1 on
    int error = 0;
    Kind kind = Kind::once;
    unsigned second = 0; // 0: no second fault
};

std::string nameOf(const Point &point);
// Throws std::invalid_argument.
Point pointOf(const std::string &name);

// Gives each call of a process its fate by a point: for Tracer.
class Fault {
public:
    // With `ofRecovery`, the first fault has been: only the second is still to come.
    explicit Fault(const Point &point, bool ofRecovery = false) : point_(point), met_(ofRecovery) {}

    Fate decide(const SystemCall &call);
    bool met() const { return met_; }
    bool secondMet() const { return secondMet_; }

private:
    Fate decideFirst(const SystemCall &call);
    Fate decideSecond(const SystemCall &call);

    Point point_;
    bool met_ = false;
    bool secondMet_ = false;
    unsigned seen_ = 0;
    unsigned seenAfter_ = 0;
    Operand operand_ = Operand::none;
};

} // namespace faults

#endif
