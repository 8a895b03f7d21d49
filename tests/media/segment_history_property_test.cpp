// The cache against a reference: random histories, made smaller where one fails. What a failure prints for RC_PARAMS
// repeats it.

#include <gtest/gtest.h>

#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>

#include "tests/media/segment_history.h"

namespace {

// Before the first property asks for it.
[[maybe_unused]] const int configured = setenv("RC_PARAMS", "max_success=" MEDIAD_TEST_HISTORIES, 0);

rc::Gen<history::Step> anyStep() {
    // Clips are more often added than removed, or the segment stays small.
    const auto kind = rc::gen::weightedElement<history::Kind>({{3, history::Kind::AddClip},
                                                               {1, history::Kind::RemoveClip},
                                                               {2, history::Kind::AddPlaylist},
                                                               {1, history::Kind::DeletePlaylist}});
    return rc::gen::construct<history::Step>(kind, rc::gen::inRange(0U, 16U), rc::gen::inRange(0U, 8U));
}

RC_GTEST_PROP(SegmentHistoryProperty, CacheAndReferenceAgree, ()) {
    const auto steps = *rc::gen::resize(16, rc::gen::container<std::vector<history::Step>>(anyStep()));
    RC_ASSERT(history::run(steps) == "");
}

} // namespace
