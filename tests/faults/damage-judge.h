// What is lawful after files were damaged while the host did not run.
#ifndef TESTS_FAULTS_DAMAGE_JUDGE_H
#define TESTS_FAULTS_DAMAGE_JUDGE_H

#include <string>

#include "faults/judge.h"

namespace faults {

// What the files held, before the damage and after it, and what the host made of them.
struct Damaged {
    LawfulStates main;   // what the main database held: two where a change was under way
    LawfulStates backup; // and its backup
    Stored mainSeen;     // as anybody reads them after the damage
    Stored backupSeen;   //
    bool up = true;      // the host serves
    bool said = false;   // its log or its status tells of damage, or of a change by somebody else
    Observation inTheEnd;
    std::string unharmed; // what else is not as it was, though its file was not touched; empty: nothing
};

struct DamageJudgement {
    const char *violation = nullptr; // null: none
    std::string text;
};
DamageJudgement judgeDamage(const Damaged &damaged);

} // namespace faults

#endif
