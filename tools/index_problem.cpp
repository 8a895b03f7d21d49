#include "tools/index_problem.h"

#include <cstring>

namespace mediactl {

using nevo::media::SegmentState;

std::string indexProblem(SegmentState state, int error) {
    switch (state) {
    case SegmentState::Filled:
    case SegmentState::Unwritten:
    case SegmentState::Absent: return "";
    // The recorder takes such a lock over after a while; whoever only looks on does not.
    case SegmentState::Locked: return "the medium cache is locked, and whoever locked it does not let go";
    case SegmentState::Failed: break;
    }
    return std::string("the medium cache cannot be read: ") + (error ? std::strerror(error) : "unknown failure");
}

bool isIndexMissing(SegmentState state) { return state == SegmentState::Unwritten || state == SegmentState::Absent; }

} // namespace mediactl
