#include "clip_examiner.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>
#include <utime.h>

#include <cctype>
#include <cstddef>
#include <limits>
#include <map>
#include <random>
#include <thread>

#include "encode_type.h"
#include "tests/media/clip_files.h"

using nevo::media::ClipExaminer;
using namespace clipfiles;

namespace {

// 2026-11-20 00:00:00 UTC
constexpr std::int32_t kDay = 1'795'132'800;

struct Expected {
    const char* source;
    std::int32_t time;
    std::uint32_t frames;
    const char* timecode;
    const char* attributes;
};

const Expected kExpected[] = {
    {"apch", kDay + 11 * 3600, 7, "",
     "Format\n48p\nHeight\n48\nWidth\n64\nFrame Rate\n50\nEncode Type\n1\nAudio Chan\n0"},
    {"apcn", kDay + 9 * 3600, 5, "23:59:59:10",
     "Format\n48p\nHeight\n48\nWidth\n64\nFrame Rate\n23.98\nEncode Type\n2\nAudio Chan\n0\nStarting TC\n23:59:59:10"},
    {"apcs", kDay + 10 * 3600 + 300, 12, "01:02:03;04",
     "Format\n64p\nHeight\n64\nWidth\n96\nFrame Rate\n29.97\nEncode Type\n3\nAudio Chan\n4\nStarting TC\n01:02:03;04"},
    {"apco", kDay + 10 * 3600, 10, "10:00:00:00",
     "Format\n48p\nHeight\n48\nWidth\n64\nFrame Rate\n25\nEncode Type\n4\nAudio Chan\n2\nStarting TC\n10:00:00:00"},
    {"ap4h", kDay + 8 * 3600, 3, "00:00:00:00",
     "Format\n48p\nHeight\n48\nWidth\n64\nFrame Rate\n60\nEncode Type\n5\nAudio Chan\n0\nStarting TC\n00:00:00:00"},
    {"AVdn", kDay + 7 * 3600 + 1800, 2, "10:00:00:00",
     "Format\n1080p\nHeight\n1080\nWidth\n1920\nFrame Rate\n25\nEncode Type\n6\nAudio Chan\n4\n"
     "Starting TC\n10:00:00:00"},
    {"interlaced", kDay + 12 * 3600, 4, "",
     "Format\n48i\nHeight\n48\nWidth\n64\nFrame Rate\n25\nEncode Type\n2\nAudio Chan\n0"},
};

class ClipExaminerTest : public SegmentTest {
protected:
    // What the examination makes of these bytes; the record is looked at in `_clip`.
    bool grok(const std::string& bytes, const std::string& name = "clip.mov") {
        writeFile(at(name), bytes);
        return grokPath(at(name));
    }
    bool grokPath(const std::string& path, bool option = false) {
        std::memset(&_clip, 0, sizeof _clip);
        return ClipExaminer::GrokClip(_clip, path, option);
    }
    bool isUntouched() const {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&_clip);
        return std::all_of(bytes, bytes + sizeof _clip, [](unsigned char byte) { return byte == 0; });
    }
    // What holds of every record, wherever its file comes from.
    void expectSound() const {
        EXPECT_STREQ(_clip.name, "clip");
        const std::string timecode(_clip.startTimecode, strnlen(_clip.startTimecode, 28));
        EXPECT_LT(timecode.size(), 28U);
        for (const char c : timecode) EXPECT_TRUE((c >= '0' && c <= '9') || c == ':' || c == ';' || c == '.');
        EXPECT_EQ(_clip.sameCodec, 0);
        const std::string text(_clip.attributes.text, strnlen(_clip.attributes.text, 2400));
        EXPECT_LT(text.size(), 2400U);
        for (const char c : text) EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << static_cast<int>(c);
        const auto attributes = _clip.attributes.getAttributesMap();
        ASSERT_TRUE(attributes.contains("Encode Type")) << text;
        const std::string& type = attributes.at("Encode Type");
        EXPECT_TRUE(type.size() == 1 && type[0] >= '1' && type[0] <= '6') << type;
    }

    Clip _clip;
};

TEST_F(ClipExaminerTest, EveryKnownEncodeTypeFillsTheRecord) {
    for (const Expected& expected : kExpected) {
        SCOPED_TRACE(expected.source);
        ASSERT_TRUE(grok(clipBytes(expected.source)));
        EXPECT_STREQ(_clip.name, "clip");
        EXPECT_EQ(_clip.time, expected.time);
        EXPECT_EQ(_clip.frames, expected.frames);
        EXPECT_STREQ(_clip.startTimecode, expected.timecode);
        EXPECT_EQ(_clip.sameCodec, 0);
        EXPECT_STREQ(_clip.attributes.text, expected.attributes);
    }
}

TEST_F(ClipExaminerTest, TheOptionChangesNothing) {
    writeFile(at("clip.mov"), clipBytes("apco"));
    ASSERT_TRUE(grokPath(at("clip.mov"), true));
    EXPECT_EQ(_clip.frames, 10U);
}

TEST_F(ClipExaminerTest, TheCodecFlagIsNotTouched) {
    writeFile(at("clip.mov"), clipBytes("apco"));
    Clip clip{};
    clip.sameCodec = 1;
    ASSERT_TRUE(ClipExaminer::GrokClip(clip, at("clip.mov"), false));
    EXPECT_EQ(clip.sameCodec, 1);
}

TEST_F(ClipExaminerTest, TheNameIsTheFileNameUpToItsLastPoint) {
    const std::map<std::string, std::string> names{{"Clip_0001.mov", "Clip_0001"}, {"Scene 1.5.MOV", "Scene 1.5"},
                                                   {"clip.MOV.txt", "clip.MOV"},   {"no extension", "no extension"},
                                                   {"caf\xc3\xa9.mov", "caf\xc3\xa9"}};
    for (const auto& [file, name] : names) {
        ASSERT_TRUE(grok(clipBytes("apcn"), file)) << file;
        EXPECT_EQ(std::string(_clip.name), name);
        EXPECT_EQ(ClipExaminer::clipName(at(file)), name);
        EXPECT_EQ(ClipExaminer::clipName(file), name);
    }
    EXPECT_EQ(ClipExaminer::clipName("/a.b/c"), "c");
}

TEST_F(ClipExaminerTest, AClipWithoutANameIsNotUsable) {
    EXPECT_FALSE(grok(clipBytes("apcn"), ".mov"));
    EXPECT_TRUE(isUntouched());
}

TEST_F(ClipExaminerTest, WithoutACreationTimeTheFilesOwnCounts) {
    writeFile(at("clip.mov"), withCreationTime(clipBytes("apcn"), 0));
    utimbuf times{1'234'567'890, 1'234'567'890};
    ASSERT_EQ(utime(at("clip.mov").c_str(), &times), 0);
    ASSERT_TRUE(grokPath(at("clip.mov")));
    EXPECT_EQ(_clip.time, 1'234'567'890);
}

TEST_F(ClipExaminerTest, TimesBeyondTheFieldStopAtItsEnd) {
    ASSERT_TRUE(grok(withCreationTime(clipBytes("apcn"), 0xffffffff))); // February 2040
    EXPECT_EQ(_clip.time, std::numeric_limits<std::int32_t>::max());
    ASSERT_TRUE(grok(withCreationTime(clipBytes("apcn"), kUnixEpochSince1904 + 0x7fffffff)));
    EXPECT_EQ(_clip.time, std::numeric_limits<std::int32_t>::max());
    ASSERT_TRUE(grok(withCreationTime(clipBytes("apcn"), kUnixEpochSince1904 + 0x7ffffffe)));
    EXPECT_EQ(_clip.time, std::numeric_limits<std::int32_t>::max() - 1);
    ASSERT_TRUE(grok(withCreationTime(clipBytes("apcn"), kUnixEpochSince1904 + 951'827'696))); // a leap day
    EXPECT_EQ(_clip.time, 951'827'696);
}

TEST_F(ClipExaminerTest, OtherVideoAndNoVideoAreNotUsable) {
    for (const char* source : {"foreign", "silent"}) {
        EXPECT_FALSE(grok(clipBytes(source))) << source;
        EXPECT_TRUE(isUntouched());
    }
}

TEST_F(ClipExaminerTest, AnUnknownFourccIsNotUsable) {
    for (const char* fourcc : {"AVdh", "apcX", "hcpa", "\0\0\0\0"}) {
        std::string bytes = clipBytes("apch");
        for (std::size_t at = bytes.find("apch"); at != std::string::npos; at = bytes.find("apch", at + 4))
            bytes.replace(at, 4, fourcc, 4);
        EXPECT_FALSE(grok(bytes)) << fourcc;
    }
}

TEST_F(ClipExaminerTest, OnlyRegularFilesAreOpened) {
    EXPECT_FALSE(grokPath(at("missing.mov")));
    EXPECT_FALSE(grokPath(""));
    ASSERT_EQ(mkdir(at("folder.mov").c_str(), 0777), 0);
    EXPECT_FALSE(grokPath(at("folder.mov")));
    ASSERT_EQ(mkfifo(at("pipe.mov").c_str(), 0666), 0);
    EXPECT_FALSE(grokPath(at("pipe.mov"))); // and does not wait for a writer
    writeFile(at("real.mov"), clipBytes("apcn"));
    ASSERT_EQ(symlink(at("real.mov").c_str(), at("link.mov").c_str()), 0);
    EXPECT_FALSE(grokPath(at("link.mov")));
    EXPECT_FALSE(grokPath("/dev/zero"));
    EXPECT_TRUE(isUntouched());
    EXPECT_TRUE(grokPath(at("real.mov")));
}

TEST_F(ClipExaminerTest, AnEmptyFileAndOtherContentsAreNotUsable) {
    EXPECT_FALSE(grok(""));
    EXPECT_FALSE(grok("x"));
    EXPECT_FALSE(grok(std::string(100'000, '\0')));
    EXPECT_FALSE(grok(std::string(100'000, '\xff')));
    EXPECT_FALSE(grok(readFile("/proc/self/exe").substr(0, 100'000)));
    EXPECT_TRUE(isUntouched());
}

// The movie header stands at the end of these files.
TEST_F(ClipExaminerTest, ACutOffClipIsNotUsable) {
    for (const char* source : {"apco", "AVdn"}) {
        const std::string whole = clipBytes(source);
        const std::size_t header = whole.rfind("moov") - 4;
        for (const std::size_t size : {std::size_t{8}, std::size_t{1000}, header, header + 8, header + 20})
            EXPECT_FALSE(grok(whole.substr(0, size))) << source << " " << size;
        for (std::size_t size = header; size < whole.size(); size += 7)
            if (grok(whole.substr(0, size))) expectSound();
    }
}

TEST_F(ClipExaminerTest, HugeSizesInTheFileDoNoHarm) {
    const std::string clip = clipBytes("apco");
    const std::string huge[] = {{'\x7f', '\xff', '\xff', '\xff'}, {'\xff', '\xff', '\xff', '\xff'},
                                {'\0', '\0', '\0', '\1'},         {'\0', '\0', '\0', '\0'},
                                {'\x80', '\0', '\0', '\0'}};
    for (const char* atom : {"moov", "mvhd", "trak", "mdia", "stbl", "stsd", "stts", "stsc", "stsz", "stco", "mdat",
                             "hdlr", "dref", "tmcd", "elst", "udta", "meta", "fiel"}) {
        for (std::size_t found = clip.find(atom, 4); found != std::string::npos; found = clip.find(atom, found + 4)) {
            for (const std::string& size : huge) {
                std::string bytes = clip;
                bytes.replace(found - 4, 4, size); // the atom's size
                if (grok(bytes)) expectSound();
                bytes = clip;
                if (found + 12 > bytes.size()) continue;
                bytes.replace(found + 8, 4, size); // and the count that many atoms begin with
                if (grok(bytes)) expectSound();
            }
        }
    }
}

TEST_F(ClipExaminerTest, MutatedClipsNeitherCrashNorGiveUnsoundRecords) {
    std::mt19937 random(20261120);
    std::vector<std::string> sources;
    for (const char* source : {"apco", "apcs", "apcn"}) sources.push_back(clipBytes(source));
    std::size_t usable = 0;
    const int rounds = 1200;
    for (int round = 0; round < rounds; ++round) {
        std::string bytes = sources[random() % sources.size()];
        const std::size_t header = bytes.rfind("moov"); // changes elsewhere are never read
        const std::size_t changes = 1 + random() % 8;
        for (std::size_t i = 0; i < changes; ++i)
            bytes[header + random() % (bytes.size() - header)] = static_cast<char>(random() & 0xff);
        SCOPED_TRACE(round);
        if (grok(bytes)) {
            ++usable;
            expectSound();
        } else {
            EXPECT_TRUE(isUntouched());
        }
    }
    // Both outcomes must occur, or the test says nothing.
    EXPECT_GT(usable, 50U);
    EXPECT_LT(usable, static_cast<std::size_t>(rounds));
}

TEST_F(ClipExaminerTest, TheReaderSaysNothingAndKeepsNothingOpen) {
    const std::size_t before = openDescriptors();
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    grok(clipBytes("apco"));
    grok(clipBytes("apco").substr(0, 70'000));
    grok(clipBytes("foreign"));
    grok("rubbish");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ClipExaminerTest, AFileLargerThanFourGigabytesIsReadToItsEnd) {
    // The movie header behind a hole: only 64-bit positions reach it.
    const std::string clip = clipBytes("apcn");
    const std::size_t header = clip.rfind("moov") - 4;
    const off_t hole = off_t{5} << 30;
    const std::string path = at("clip.mov");
    const std::size_t data = clip.find("mdat") - 4;
    std::string front = clip.substr(0, data);
    // A media data atom with a 64-bit size, from its own start to the header.
    front += std::string("\0\0\0\1mdat", 8);
    const auto size = static_cast<std::uint64_t>(hole) - data;
    for (int shift = 56; shift >= 0; shift -= 8) front += static_cast<char>(static_cast<unsigned char>(size >> shift));
    writeFile(path, front);
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_NE(file, -1);
    const std::string tail = clip.substr(header);
    ASSERT_EQ(pwrite(file, tail.data(), tail.size(), hole), static_cast<ssize_t>(tail.size()));
    close(file);
    ASSERT_TRUE(grokPath(path));
    EXPECT_EQ(_clip.frames, 5U);
}

TEST_F(ClipExaminerTest, ManyThreadsExamineAtOnce) {
    std::vector<std::thread> threads;
    for (const Expected& expected : kExpected) {
        const std::string path = at(std::string(expected.source) + ".mov");
        writeFile(path, clipBytes(expected.source));
        threads.emplace_back([path, &expected] {
            for (int i = 0; i < 10; ++i) {
                Clip clip{};
                EXPECT_TRUE(ClipExaminer::GrokClip(clip, path, false));
                EXPECT_EQ(clip.frames, expected.frames);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST(EncodeType, TheProResKindsAreOneCodecDNxHDAnotherAndTheRestNone) {
    for (unsigned int a = 0; a <= 8; ++a) {
        for (unsigned int b = 0; b <= 8; ++b) {
            const bool same = (a >= 1 && a <= 5 && b >= 1 && b <= 5) || (a == 6 && b == 6);
            EXPECT_EQ(CIsEncodeType::areEncodeTypesDifferentCodecs(a, b) == 0, same) << a << " " << b;
        }
    }
}

} // namespace
