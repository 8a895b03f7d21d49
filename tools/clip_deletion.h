#ifndef MEDIAD_TOOLS_CLIP_DELETION_H
#define MEDIAD_TOOLS_CLIP_DELETION_H

// Deleting from the medium in use, by way of mediad.

#include <chrono>
#include <string>
#include <vector>

#include "tools/outcome.h"

namespace mediactl {

// Deletes the files of these names (as they stand in the maker directory, the extension included) and waits until they
// are gone from the medium and their clips from the index. Says on standard output what was deleted, and what was not
// there: that is no failure, and nothing is asked for then. Asks first unless `yes`.
Outcome deleteClips(const std::vector<std::string>& names, bool yes, std::chrono::seconds patience);

// The same with every file in the maker directory that is not hidden, clips or not.
Outcome deleteEverything(bool yes, std::chrono::seconds patience);

} // namespace mediactl

#endif
