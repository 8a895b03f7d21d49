#ifndef MEDIAD_TOOLS_STATUS_REPORT_H
#define MEDIAD_TOOLS_STATUS_REPORT_H

// What the recorder's storage is doing, on one page.

#include "tools/outcome.h"

namespace mediactl {

// Once, as text or as one JSON object.
Outcome showStatus(bool json);

// Until the process is ended: redrawn in place on a terminal, elsewhere one block of text, or one line of JSON, for
// each change.
Outcome watchStatus(bool json);

} // namespace mediactl

#endif
