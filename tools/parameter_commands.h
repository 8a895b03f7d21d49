#ifndef MEDIAD_TOOLS_PARAMETER_COMMANDS_H
#define MEDIAD_TOOLS_PARAMETER_COMMANDS_H

// The commands that work on single parameters. Parameters are names or identifiers, as parseParameter takes them.

#include <string>
#include <vector>

#include "tools/outcome.h"

namespace mediactl {

// The values, one a line, in the order asked for. Nothing is printed unless all of them can be.
Outcome getParameters(const std::vector<std::string>& parameters);

// Writes one parameter. One that is in no table and that nobody has written becomes an integer where `value` is one.
Outcome setParameter(const std::string& parameter, const std::string& value);

// A line for each change until the process is ended; none listed watches everything. Connects again when the store is
// lost.
Outcome watchParameters(const std::vector<std::string>& parameters);

// The table of parameters; needs no store.
Outcome listParameters();

} // namespace mediactl

#endif
