// The cache against a reference, over random histories from fixed seeds: wherever the property test cannot run as well.

#include "tests/media/segment_history.h"

#include <gtest/gtest.h>

#include <random>

namespace {

TEST(SegmentHistory, CacheAndReferenceAgreeOverSeededHistories) {
    for (unsigned int seed = 1; seed <= 100; ++seed) {
        std::mt19937 random(seed);
        std::vector<history::Step> steps(1 + random() % 30);
        for (history::Step& step : steps)
            step = {static_cast<history::Kind>(random() % 4), static_cast<unsigned int>(random() % 16),
                    static_cast<unsigned int>(random() % 8)};
        std::ostringstream told;
        for (const history::Step& step : steps) told << step << "\n";
        ASSERT_EQ(history::run(steps), "") << "seed " << seed << "\n" << told.str();
    }
}

} // namespace
