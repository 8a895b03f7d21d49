#ifndef MEDIAD_TOOLS_INDEX_PROBLEM_H
#define MEDIAD_TOOLS_INDEX_PROBLEM_H

#include <string>

#include "shared_segment.h"

namespace mediactl {

// Why a shared segment could not be read, in words; empty when it could. One that is not there yet could: it is empty.
std::string indexProblem(nevo::media::SegmentState state, int error);

// Whether there is no index yet, which is told apart from an empty one.
bool isIndexMissing(nevo::media::SegmentState state);

inline constexpr char kNoIndexYet[] = "no medium cache yet";

} // namespace mediactl

#endif
