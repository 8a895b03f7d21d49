#ifndef MEDIAD_TOOLS_OUTCOME_H
#define MEDIAD_TOOLS_OUTCOME_H

// How a command of mediactl ends: its exit status, and one line on standard error when it did not do what was asked.

#include <string>

// mediactl has a namespace because a program's symbols win over those of the same name inside the shared libraries.
namespace mediactl {

enum class Outcome : int {
    Done = 0,
    Failed = 1,       // refused, or tried and not done
    WrongUsage = 2,   // the command line makes no sense
    NobodyServes = 3, // no process hosts the parameter store
};

// Writes "mediactl: " and `line` to standard error, made safe for a terminal and for one line.
void say(const std::string& line);

// As say, and gives the outcome back, so that a failing command can return it.
Outcome fail(Outcome outcome, const std::string& line);

// The one wording for a store that nobody hosts.
Outcome failNobodyServes();

} // namespace mediactl

#endif
