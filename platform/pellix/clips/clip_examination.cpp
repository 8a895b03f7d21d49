#include "clip_examination.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "clip_examiner.h"

namespace {

// Terminated whatever the length.
template <std::size_t size>
void putText(char (&field)[size], std::string_view text) {
    const std::size_t length = std::min(text.size(), size - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

template <typename Integer>
Integer clampTo(std::int64_t value) {
    return static_cast<Integer>(std::clamp<std::int64_t>(value, std::numeric_limits<Integer>::min(),
                                                         std::numeric_limits<Integer>::max()));
}

// "25", "29.97", "23.98": two digits after the point, none when both are 0.
std::string frameRateText(const QuickTimeHeader& header) {
    const std::int64_t hundredths =
        (std::int64_t{header.frameRateNumerator} * 100 + header.frameRateDenominator / 2) / header.frameRateDenominator;
    std::string text = std::to_string(hundredths / 100);
    if (const auto rest = static_cast<int>(hundredths % 100); rest != 0) {
        text += '.';
        text += static_cast<char>('0' + rest / 10);
        text += static_cast<char>('0' + rest % 10);
    }
    return text;
}

// Readers take the lines in pairs and skip empty ones: an attribute without a value is left out, name and all.
std::string attributeText(const QuickTimeHeader& header) {
    using namespace nevo::media;
    std::string text;
    const auto add = [&text](const char* name, const std::string& value) {
        if (value.empty()) return;
        if (!text.empty()) text += '\n';
        text.append(name).append(1, '\n').append(value);
    };
    add(MediaFormat, std::to_string(header.height) + (header.interlaced ? 'i' : 'p'));
    add(MediaHeight, std::to_string(header.height));
    add(MediaWidth, std::to_string(header.width));
    if (header.frameRateDenominator > 0) add(MediaFrameRate, frameRateText(header));
    add(MediaVideoEncodeType, std::to_string(static_cast<unsigned int>(header.encodeType)));
    add(MediaAudioChannels, std::to_string(header.audioChannels));
    add(MediaStartingTimecode, header.startTimecode);
    return text;
}

} // namespace

void fillClip(Clip& clip, const std::string& path, std::int64_t modified, const QuickTimeHeader& header) {
    putText(clip.name, nevo::media::ClipExaminer::clipName(path));
    clip.time = clampTo<std::int32_t>(header.creationTime.value_or(modified));
    clip.frames = clampTo<std::uint32_t>(header.frames);
    putText(clip.startTimecode, header.startTimecode);
    putText(clip.attributes.text, attributeText(header));
}
