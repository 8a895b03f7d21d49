#ifndef MEDIAD_TOOLS_CONFIRMATION_H
#define MEDIAD_TOOLS_CONFIRMATION_H

// Asking before data is lost.

#include <string>

#include "tools/outcome.h"

namespace mediactl {

// Done when nobody needs to be asked, or there is a terminal to ask at. Otherwise one line says that --yes is missing.
Outcome canAsk(bool yes);

// Asks, unless `yes` says that nobody needs to be asked. `question` may have several lines; what others wrote in it has
// passed printable. Anything but "y" or "yes" is a no: Failed then, and the line said is "not confirmed; " with
// `consequence` behind it.
Outcome confirm(bool yes, const std::string& question, const std::string& consequence);

} // namespace mediactl

#endif
