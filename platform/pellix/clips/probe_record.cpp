#include "probe_record.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Years have four digits; a time of day that reads 99:99:99 reaches a little further.
constexpr std::int64_t kEarliest = -62'167'219'200; // the first second of year 0
constexpr std::int64_t kLatest = 253'402'600'000;   // five days into the year 10000, or nearly

} // namespace

bool isTimecode(std::string_view text) {
    if (text.size() != 11 && text.size() != 12) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separator = i == 2 || i == 5 || i == 8;
        if (!separator && !isDigit(text[i])) return false;
        if (separator && text[i] != ':' && !(i == 8 && (text[i] == ';' || text[i] == '.'))) return false;
    }
    return true;
}

ProbeAnswer makeProbeAnswer(std::uint32_t serial, const std::optional<QuickTimeHeader>& header) {
    ProbeAnswer answer{};
    answer.serial = serial;
    if (!header) return answer;
    answer.usable = 1;
    answer.encodeType = header->encodeType;
    answer.width = header->width;
    answer.height = header->height;
    answer.interlaced = header->interlaced ? 1 : 0;
    answer.frameRateNumerator = header->frameRateNumerator;
    answer.frameRateDenominator = header->frameRateDenominator;
    answer.audioChannels = header->audioChannels;
    answer.hasCreationTime = header->creationTime ? 1 : 0;
    answer.creationTime = header->creationTime.value_or(0);
    answer.frames = header->frames;
    std::memcpy(answer.startTimecode, header->startTimecode.data(),
                std::min(header->startTimecode.size(), sizeof answer.startTimecode - 1));
    return answer;
}

ProbeVerdict readProbeAnswer(const ProbeAnswer& answer, std::uint32_t serial, QuickTimeHeader& header) {
    if (answer.serial != serial) return ProbeVerdict::Invalid;
    if (answer.usable == 0) {
        const ProbeAnswer nothing = makeProbeAnswer(serial, std::nullopt);
        return std::memcmp(&answer, &nothing, sizeof answer) == 0 ? ProbeVerdict::NotUsable : ProbeVerdict::Invalid;
    }
    const auto isFlag = [](std::uint32_t value) { return value <= 1; };
    const bool isRate = answer.frameRateNumerator > 0 && answer.frameRateDenominator > 0;
    const bool isNoRate = answer.frameRateNumerator == 0 && answer.frameRateDenominator == 0;
    const std::size_t length = strnlen(answer.startTimecode, sizeof answer.startTimecode);
    const std::string_view timecode(answer.startTimecode, length);
    const bool isFilledUp = std::all_of(answer.startTimecode + length, std::end(answer.startTimecode),
                                        [](char c) { return c == '\0'; });
    if (!isFlag(answer.usable) || answer.encodeType < kEncodeApch || answer.encodeType > kEncodeAVdn ||
        answer.width <= 0 || answer.height <= 0 || !isFlag(answer.interlaced) || (!isRate && !isNoRate) ||
        answer.audioChannels < 0 || answer.audioChannels > kMostAudioChannels || !isFlag(answer.hasCreationTime) ||
        answer.creationTime < kEarliest || answer.creationTime > kLatest ||
        (answer.hasCreationTime == 0 && answer.creationTime != 0) || answer.frames < 0 || !isFilledUp ||
        (!timecode.empty() && !isTimecode(timecode)))
        return ProbeVerdict::Invalid;
    header.encodeType = static_cast<eEncodeType_t>(answer.encodeType);
    header.width = answer.width;
    header.height = answer.height;
    header.interlaced = answer.interlaced == 1;
    header.frameRateNumerator = answer.frameRateNumerator;
    header.frameRateDenominator = answer.frameRateDenominator;
    header.audioChannels = answer.audioChannels;
    header.frames = answer.frames;
    header.startTimecode = timecode;
    header.creationTime = answer.hasCreationTime == 1 ? std::optional(answer.creationTime) : std::nullopt;
    return ProbeVerdict::Usable;
}
