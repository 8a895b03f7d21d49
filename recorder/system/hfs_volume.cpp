#include "recorder/system/hfs_volume.h"

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace {

// On disk everything is big-endian.
std::uint16_t number16(const unsigned char* bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

std::uint32_t number32(const unsigned char* bytes) {
    return std::uint32_t{number16(bytes)} << 16 | number16(bytes + 2);
}

constexpr std::uint64_t kHeaderOffset = 1024;
constexpr std::size_t kHeaderSize = 512;

constexpr std::uint16_t kSignatureHfsPlus = 0x482b; // "H+"
constexpr std::uint16_t kSignatureHfsx = 0x4858;    // "HX"
constexpr std::uint16_t kSignatureHfs = 0x4244;     // "BD", the wrapper

constexpr std::uint32_t kRootParent = 1; // the parent in the root folder's key, whose name is the volume's
constexpr std::size_t kNodeDescriptorSize = 14;
constexpr std::uint8_t kLeafNode = 0xff; // the kind -1
constexpr std::size_t kMostNameUnits = 255;

struct Volume {
    std::uint64_t offset; // of the volume in the device, in bytes
    std::array<unsigned char, kHeaderSize> header;
};

bool isHfsPlus(std::uint16_t signature) {
    return signature == kSignatureHfsPlus || signature == kSignatureHfsx;
}

// The catalog as a byte stream: its first eight extents, which the header names. Its first leaf is never beyond them.
class Catalog {
public:
    Catalog(const DeviceReader& read, const Volume& volume) : _read(read), _volume(volume) {}

    bool readAt(std::uint64_t position, unsigned char* bytes, std::size_t size) const {
        const std::uint64_t blockSize = number32(&_volume.header[40]);
        if (blockSize < 512 || (blockSize & (blockSize - 1)) != 0) {
            return false;
        }
        while (size > 0) {
            std::uint64_t start = 0; // of the extent, in the catalog
            bool found = false;
            for (std::size_t i = 0; i < 8 && !found; ++i) {
                const unsigned char* extent = &_volume.header[272 + 16 + i * 8];
                const std::uint64_t length = number32(extent + 4) * blockSize;
                if (position < start + length) {
                    const std::size_t part = static_cast<std::size_t>(std::min<std::uint64_t>(size, start + length - position));
                    if (!_read(_volume.offset + number32(extent) * blockSize + (position - start), bytes, part)) {
                        return false;
                    }
                    position += part;
                    bytes += part;
                    size -= part;
                    found = true;
                }
                start += length;
            }
            if (!found) {
                return false;
            }
        }
        return true;
    }

private:
    const DeviceReader& _read;
    const Volume& _volume;
};

void appendUtf8(std::string& text, std::uint32_t character) {
    const auto push = [&text](std::uint32_t byte) { text.push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
    if (character < 0x80) {
        push(character);
    } else if (character < 0x800) {
        push(0xc0 | character >> 6);
        push(0x80 | (character & 0x3f));
    } else if (character < 0x10000) {
        push(0xe0 | character >> 12);
        push(0x80 | (character >> 6 & 0x3f));
        push(0x80 | (character & 0x3f));
    } else {
        push(0xf0 | character >> 18);
        push(0x80 | (character >> 12 & 0x3f));
        push(0x80 | (character >> 6 & 0x3f));
        push(0x80 | (character & 0x3f));
    }
}

std::string fromUtf16(const unsigned char* units, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t character = number16(units + i * 2);
        if (character >= 0xd800 && character < 0xe000) {
            const std::uint32_t next = i + 1 < count ? number16(units + (i + 1) * 2) : 0;
            if (character < 0xdc00 && next >= 0xdc00 && next < 0xe000) {
                character = 0x10000 + ((character - 0xd800) << 10) + (next - 0xdc00);
                ++i;
            } else {
                character = 0xfffd; // half a pair
            }
        }
        // Those who read the name take it line by line; like any control character they show these as "_".
        appendUtf8(text, character == '\n' || character == '\0' ? '_' : character);
    }
    return text;
}

std::optional<std::string> rootFolderName(const Catalog& catalog) {
    std::array<unsigned char, kNodeDescriptorSize + 106> first;
    if (!catalog.readAt(0, first.data(), first.size())) {
        return std::nullopt;
    }
    const unsigned char* tree = &first[kNodeDescriptorSize];
    const std::uint32_t firstLeaf = number32(tree + 10);
    const std::size_t nodeSize = number16(tree + 18);
    if (nodeSize < 512 || firstLeaf == 0) {
        return std::nullopt;
    }
    std::vector<unsigned char> node(nodeSize);
    if (!catalog.readAt(std::uint64_t{firstLeaf} * nodeSize, node.data(), nodeSize) || node[8] != kLeafNode) {
        return std::nullopt;
    }
    // Where the first record starts stands in the node's last two bytes.
    const std::size_t key = number16(&node[nodeSize - 2]);
    if (key < kNodeDescriptorSize || key + 8 > nodeSize || number32(&node[key + 2]) != kRootParent) {
        return std::nullopt;
    }
    const std::size_t units = number16(&node[key + 6]);
    if (units > kMostNameUnits || key + 8 + units * 2 > nodeSize) {
        return std::nullopt;
    }
    return fromUtf16(&node[key + 8], units);
}

} // namespace

VolumeName readVolumeName(const DeviceReader& read) {
    Volume volume{0, {}};
    if (!read(kHeaderOffset, volume.header.data(), volume.header.size())) {
        return {VolumeState::NotHfs, ""};
    }
    if (number16(&volume.header[0]) == kSignatureHfs && isHfsPlus(number16(&volume.header[0x7c]))) {
        const std::uint64_t blockSize = number32(&volume.header[0x14]);
        const std::uint64_t firstBlock = number16(&volume.header[0x1c]); // in sectors
        const std::uint64_t embedded = number16(&volume.header[0x7e]);   // in the wrapper's blocks
        volume.offset = firstBlock * 512 + embedded * blockSize;
        if (!read(volume.offset + kHeaderOffset, volume.header.data(), volume.header.size())) {
            return {VolumeState::NotHfs, ""};
        }
    }
    if (!isHfsPlus(number16(&volume.header[0]))) {
        return {VolumeState::NotHfs, ""};
    }
    if (auto name = rootFolderName(Catalog(read, volume))) {
        return {VolumeState::Named, std::move(*name)};
    }
    return {VolumeState::Unreadable, ""};
}

std::string printedVolumeName(std::string_view device, std::string_view name) {
    using namespace std::literals;
    std::string text;
    const auto startLine = [&] { text.append(device).append(": "); };
    startLine();
    for (std::size_t i = 0; i < name.size(); ++i) {
        text.push_back(name[i]);
        if (name[i] == '%') {
            text.push_back('%');
        }
        const std::string_view soFar = name.substr(0, i + 1);
        const std::string_view rest = name.substr(i + 1);
        if ((soFar.ends_with(':') && rest.starts_with(' ')) || (soFar.ends_with("No such"sv) && rest.starts_with(" device"sv))) {
            text.push_back('\n');
            startLine();
        }
    }
    text.push_back('\n');
    return text;
}
