#include <gtest/gtest.h>

#include <boost/interprocess/exceptions.hpp>

#include "clip_finder.h"
#include "tests/fakes/fakes.h"
#include "tests/media/clip_files.h"

using namespace clipfiles;

namespace {

using Names = std::vector<std::string>;

class ClipRemovalTest : public SegmentTest {
protected:
    bool remove(const std::string& path) { return ClipFinder(&_config).removeClip(path); }
    // Clips a second apart.
    void publish(const Names& names) {
        { const ClipFinder made(&_config); }
        RawSegment segment(kClipSegment);
        segment.fillClips(static_cast<std::int32_t>(names.size()));
        for (std::size_t i = 0; i < names.size(); ++i)
            segment.put(19 + 6536 * static_cast<std::int64_t>(i), names[i] + std::string(1, '\0'));
    }
    static Names left() { return RawSegment(kClipSegment).clipNames(); }

    fakes::Journal _journal;
    fakes::FakeConfig _config{_journal};
};

TEST_F(ClipRemovalTest, OfTwoNamesInThePathOnlyTheOneThatComesFirstGoes) {
    publish({"b", "ab", "abc"});
    EXPECT_TRUE(remove("/mnt/S1/NEVO/abc.mov"));
    EXPECT_EQ(left(), (Names{"ab", "abc"}));
}

TEST_F(ClipRemovalTest, AShorterNameThatOccursInThePathGoesWhenItComesFirst) {
    publish({"Clip_1", "Clip_12"});
    EXPECT_TRUE(remove("/mnt/S1/NEVO/Clip_12.mov"));
    EXPECT_EQ(left(), (Names{"Clip_12"}));
    publish({"Clip_12", "Clip_1"});
    EXPECT_TRUE(remove("/mnt/S1/NEVO/Clip_12.mov"));
    EXPECT_EQ(left(), (Names{"Clip_1"}));
    publish({"NEVO", "Clip_12"}); // the whole path counts
    EXPECT_TRUE(remove("/mnt/S1/NEVO/Clip_12.mov"));
    EXPECT_EQ(left(), (Names{"Clip_12"}));
}

TEST_F(ClipRemovalTest, FromAnEmptySegmentNothingIsRemovedAndItGetsMagicAndCount) {
    EXPECT_FALSE(remove("/mnt/S1/NEVO/a.mov"));
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 15), "SharedClipCache");
    EXPECT_EQ(RawSegment(kClipSegment).word(15), 0);
    publish({"a"});
    RawSegment(kClipSegment).put(0, "s");
    EXPECT_FALSE(remove("/mnt/S1/NEVO/a.mov"));
    EXPECT_EQ(RawSegment(kClipSegment).bytes(0, 15), "SharedClipCache");
    EXPECT_EQ(RawSegment(kClipSegment).word(15), 0);
}

TEST_F(ClipRemovalTest, WhatRemainsKeepsItsOrderAndIsPackedWithoutGaps) {
    publish({"a0", "a1", "a2", "a3", "a4"});
    const RawSegment segment(kClipSegment);
    const std::string before = segment.bytes(0, 19 + 5 * 6536);
    EXPECT_TRUE(remove("/mnt/a2.mov"));
    EXPECT_EQ(segment.clips(), (std::vector<std::pair<std::string, std::int32_t>>{
                                   {"a0", 1000}, {"a1", 1001}, {"a3", 1003}, {"a4", 1004}}));
    EXPECT_EQ(segment.bytes(19, 2 * 6536), before.substr(19, 2 * 6536));
    EXPECT_EQ(segment.bytes(19 + 2 * 6536, 6533), before.substr(19 + 3 * 6536, 6533));
    EXPECT_EQ(segment.text(19 + 4 * 6536, 4096), "a4"); // behind the count, as it was
}

TEST_F(ClipRemovalTest, APathThatMatchesNothingIsNoError) {
    publish({"a", "b"});
    EXPECT_FALSE(remove("/mnt/c.mov"));
    EXPECT_FALSE(remove(""));
    EXPECT_EQ(left(), (Names{"a", "b"}));
}

TEST_F(ClipRemovalTest, ARecordWhoseNameIsNotTerminatedOrEmptyDoesNoHarm) {
    publish({"a", "b"});
    RawSegment segment(kClipSegment);
    segment.put(19, std::string(4096, 'x'));
    EXPECT_TRUE(remove("/mnt/b.mov"));
    EXPECT_EQ(segment.word(15), 1);
    EXPECT_TRUE(remove("/" + std::string(4096, 'x')));
    publish({"", "b"}); // an empty name is part of every path
    EXPECT_TRUE(remove("/mnt/b.mov"));
    EXPECT_EQ(left(), Names{"b"});
}

TEST_F(ClipRemovalTest, ACountBeyondTheCapacityIsNotBelieved) {
    { const ClipFinder made(&_config); }
    RawSegment segment(kClipSegment);
    segment.fillClips(4096);
    segment.putWord(15, -1);
    EXPECT_TRUE(remove("/mnt/old_0007.mov"));
    EXPECT_EQ(segment.word(15), 4095);
    segment.putWord(15, 5000);
    EXPECT_FALSE(remove("/mnt/none.mov"));
    EXPECT_EQ(segment.word(15), 4096);
}

TEST_F(ClipRemovalTest, AFailureOfTheSharedMemoryIsThrown) {
    ClipFinder finder(&_config);
    ASSERT_EQ(truncate(kClipSegment, 100), 0);
    EXPECT_THROW(finder.removeClip("/mnt/a.mov"), boost::interprocess::interprocess_exception);
}

} // namespace
