#include "recorder/system/hfs_volume.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The few structures of a volume that lead to its name, written byte by byte as the format has them.
class Volume {
public:
    static constexpr std::size_t kBlock = 4096;
    static constexpr std::size_t kCatalogBlock = 10;
    static constexpr std::size_t kNodeSize = 4096;

    explicit Volume(const std::u16string& name, std::uint16_t signature = 0x482b) : bytes(64 * kBlock, 0) {
        put16(1024, signature);
        put32(1024 + 40, kBlock);
        put32(1024 + 272 + 16, kCatalogBlock); // first extent: start and length in blocks
        put32(1024 + 272 + 20, 4);
        const std::size_t header = kCatalogBlock * kBlock;
        bytes[header + 8] = 1;              // kind: header node
        put32(header + 14 + 10, 2);         // first leaf node
        put16(header + 14 + 18, kNodeSize); // node size
        leaf = header + 2 * kNodeSize;
        bytes[leaf + 8] = 0xff; // kind: leaf
        put16(leaf + kNodeSize - 2, 14);
        put16(leaf + 14, static_cast<std::uint16_t>(6 + name.size() * 2)); // key length
        put32(leaf + 16, 1);                                                // parent: the root's parent
        put16(leaf + 20, static_cast<std::uint16_t>(name.size()));
        for (std::size_t i = 0; i < name.size(); ++i) {
            put16(leaf + 22 + i * 2, name[i]);
        }
    }

    void put16(std::size_t offset, std::uint16_t value) {
        bytes.at(offset) = static_cast<unsigned char>(value >> 8);
        bytes.at(offset + 1) = static_cast<unsigned char>(value & 0xff);
    }
    void put32(std::size_t offset, std::uint32_t value) {
        put16(offset, static_cast<std::uint16_t>(value >> 16));
        put16(offset + 2, static_cast<std::uint16_t>(value & 0xffff));
    }

    VolumeName read() const {
        return readVolumeName([this](std::uint64_t offset, void* target, std::size_t size) {
            if (offset > bytes.size() || size > bytes.size() - offset) {
                return false;
            }
            std::memcpy(target, bytes.data() + offset, size);
            return true;
        });
    }

    std::vector<unsigned char> bytes;
    std::size_t leaf = 0;
};

void expectName(const Volume& volume, const std::string& name) {
    const VolumeName read = volume.read();
    EXPECT_EQ(read.state, VolumeState::Named);
    EXPECT_EQ(read.name, name);
}

TEST(HfsVolume, ReadsTheName) {
    expectName(Volume(u"007"), "007");
    expectName(Volume(u""), "");
    expectName(Volume(u" two blanks  "), " two blanks  ");
    expectName(Volume(std::u16string(255, u'x')), std::string(255, 'x'));
}

TEST(HfsVolume, ReadsTheNameOfACaseSensitiveVolume) {
    expectName(Volume(u"HX", 0x4858), "HX");
}

TEST(HfsVolume, GivesTheNameInUtf8) {
    expectName(Volume(u"K\u00e4se \u65e5\u672c \U0001f4f9"), "K\xc3\xa4se \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x93\xb9");
    expectName(Volume(std::u16string{u'a', static_cast<char16_t>(0xd83d), u'b'}), "a\xef\xbf\xbd" "b");
    expectName(Volume(std::u16string{static_cast<char16_t>(0xd83d)}), "\xef\xbf\xbd");
}

TEST(HfsVolume, TakesLineEndsAndZeroesOutOfTheName) {
    expectName(Volume(std::u16string{u'a', u'\n', u'b', u'\0', u'c', u'\t', u'd'}), "a_b_c\td");
}

TEST(HfsVolume, ReadsACatalogThatLiesInPieces) {
    Volume volume(u"pieces");
    // The catalog's first node stays, its third one lies elsewhere.
    volume.put32(1024 + 272 + 20, 1);
    volume.put32(1024 + 272 + 24, 40);
    volume.put32(1024 + 272 + 28, 3);
    std::copy_n(volume.bytes.begin() + static_cast<std::ptrdiff_t>(volume.leaf), Volume::kNodeSize,
                volume.bytes.begin() + 41 * static_cast<std::ptrdiff_t>(Volume::kBlock));
    std::fill_n(volume.bytes.begin() + static_cast<std::ptrdiff_t>(volume.leaf), Volume::kNodeSize, static_cast<unsigned char>(0));
    expectName(volume, "pieces");
}

TEST(HfsVolume, ReadsAVolumeInsideAWrapper) {
    const Volume inner(u"inside");
    Volume outer(u"");
    std::fill(outer.bytes.begin(), outer.bytes.end(), static_cast<unsigned char>(0));
    outer.put16(1024, 0x4244);
    outer.put32(1024 + 0x14, 2048); // the wrapper's block size
    outer.put16(1024 + 0x1c, 8);    // its first block, in sectors
    outer.put16(1024 + 0x7c, 0x482b);
    outer.put16(1024 + 0x7e, 3); // where the volume begins, in blocks
    outer.bytes.resize(8 * 512 + 3 * 2048);
    outer.bytes.insert(outer.bytes.end(), inner.bytes.begin(), inner.bytes.end());
    expectName(outer, "inside");
}

TEST(HfsVolume, FindsNoVolumeWhereThereIsNone) {
    Volume volume(u"x");
    volume.put16(1024, 0);
    EXPECT_EQ(volume.read().state, VolumeState::NotHfs);
    volume.put16(1024, 0x4244); // a plain HFS volume
    EXPECT_EQ(volume.read().state, VolumeState::NotHfs);
    volume.bytes.resize(1025);
    EXPECT_EQ(volume.read().state, VolumeState::NotHfs);
    volume.bytes.clear();
    EXPECT_EQ(volume.read().state, VolumeState::NotHfs);
}

TEST(HfsVolume, NeverTakesADamagedVolumeForNone) {
    const auto state = [](auto damage) {
        Volume volume(u"name");
        damage(volume);
        return volume.read().state;
    };
    const std::size_t header = Volume::kCatalogBlock * Volume::kBlock;
    EXPECT_EQ(state([](Volume& volume) { volume.put32(1024 + 40, 0); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put32(1024 + 40, 4097); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put32(1024 + 272 + 16, 0xffffffff); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put32(1024 + 272 + 20, 0); }), VolumeState::Unreadable);
    EXPECT_EQ(state([&](Volume& volume) { volume.put16(header + 14 + 18, 0); }), VolumeState::Unreadable);
    EXPECT_EQ(state([&](Volume& volume) { volume.put32(header + 14 + 10, 0); }), VolumeState::Unreadable);
    EXPECT_EQ(state([&](Volume& volume) { volume.put32(header + 14 + 10, 0x7fffffff); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.bytes[volume.leaf + 8] = 0; }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put16(volume.leaf + Volume::kNodeSize - 2, 0xffff); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put16(volume.leaf + Volume::kNodeSize - 2, 0); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put32(volume.leaf + 16, 2); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.put16(volume.leaf + 20, 256); }), VolumeState::Unreadable);
    EXPECT_EQ(state([](Volume& volume) { volume.bytes.resize(volume.leaf); }), VolumeState::Unreadable);
}

TEST(HfsVolume, SurvivesWhateverTheDeviceHolds) {
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        Volume volume(u"name");
        const std::size_t header = Volume::kCatalogBlock * Volume::kBlock;
        for (int i = 0; i < 12; ++i) {
            const std::array<std::size_t, 4> places{1024 + 2 + random() % 400, header + random() % 120,
                                                    volume.leaf + random() % 60, volume.leaf + Volume::kNodeSize - 2 + random() % 2};
            volume.bytes[places[random() % places.size()]] = static_cast<unsigned char>(random());
        }
        EXPECT_NE(volume.read().state, VolumeState::NotHfs);
    }
}

// What awk makes of the printed name, by the very line that the daemon runs.
std::string throughAwk(const std::string& printed) {
    char file[] = "/tmp/volume-name-XXXXXX";
    const int descriptor = mkstemp(file);
    EXPECT_GE(descriptor, 0);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> text(fdopen(descriptor, "w"), std::fclose);
    EXPECT_EQ(std::fwrite(printed.data(), 1, printed.size(), text.get()), printed.size());
    EXPECT_EQ(std::fflush(text.get()), 0);
    const std::string line = std::string("awk -F': ' '{printf $2}' ") + file;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(line.c_str(), "r"), pclose);
    std::string result;
    std::array<char, 512> buffer;
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) {
        result.append(buffer.data(), got);
    }
    std::remove(file);
    return result;
}

TEST(PrintedVolumeName, IsOneLineForAnOrdinaryName) {
    EXPECT_EQ(printedVolumeName("/dev/sdb2", "REEL 7"), "/dev/sdb2: REEL 7\n");
    EXPECT_EQ(printedVolumeName("/dev/sdb2", ""), "/dev/sdb2: \n");
    EXPECT_EQ(printedVolumeName("/dev/sdb2", "50%"), "/dev/sdb2: 50%%\n");
    EXPECT_EQ(printedVolumeName("/dev/sdb2", "a: b"), "/dev/sdb2: a:\n/dev/sdb2:  b\n");
}

TEST(PrintedVolumeName, GetsEveryNameThroughAwkWhole) {
    for (const std::string& name :
         {std::string("REEL 7"), std::string("100% %s %d %%"), std::string("a: b"), std::string("a: b: c:d :e: "), std::string(": "),
          std::string(":: x"), std::string("No such device"), std::string("No such No such device device"),
          std::string("a\\tb\\n\\"), std::string(" blanks  "), std::string("K\xc3\xa4se"), std::string("tab\there"), std::string()}) {
        EXPECT_EQ(throughAwk(printedVolumeName("/dev/sdb2", name)), name);
    }
}

TEST(PrintedVolumeName, NeverSaysTheMessageOfThatText) {
    for (const std::string& name : {std::string("No such device"), std::string("xNo such devices: No such device")}) {
        EXPECT_EQ(printedVolumeName("/dev/sdb2", name).find("No such device"), std::string::npos);
    }
}

} // namespace
