#include "quicktime_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/pellix/clips/probe_record.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace {

constexpr std::size_t kLargestAllocation = std::size_t{64} << 20;
constexpr int kBufferSize = 32 * 1024;
// A day's worth of sample tables is a small part of this. A file that asks for more was made to keep the reader busy.
constexpr std::int64_t kReadBudget = std::int64_t{256} << 20;

constexpr int kMostStreams = 32;

// Where the reader stands in the file.
struct Source {
    int descriptor;
    std::int64_t size;
    std::int64_t position;
    std::int64_t budget;
};

int readPacket(void* opaque, std::uint8_t* buffer, int size) {
    auto& source = *static_cast<Source*>(opaque);
    if (size <= 0 || source.budget < size) return AVERROR(EIO);
    ssize_t got;
    do {
        got = ::pread(source.descriptor, buffer, static_cast<std::size_t>(size), source.position);
    } while (got == -1 && errno == EINTR);
    if (got == -1) return AVERROR(errno);
    if (got == 0) return AVERROR_EOF;
    source.position += got;
    source.budget -= got;
    return static_cast<int>(got);
}

std::int64_t seekPacket(void* opaque, std::int64_t offset, int whence) {
    auto& source = *static_cast<Source*>(opaque);
    std::int64_t target = offset;
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return source.size;
    case SEEK_SET: break;
    case SEEK_CUR:
        if (__builtin_add_overflow(source.position, offset, &target)) return AVERROR(EINVAL);
        break;
    case SEEK_END:
        if (__builtin_add_overflow(source.size, offset, &target)) return AVERROR(EINVAL);
        break;
    default: return AVERROR(EINVAL);
    }
    if (target < 0) return AVERROR(EINVAL);
    return source.position = target;
}

// A clip cannot make the recorder open anything else.
int refuseToOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) { return AVERROR(EPERM); }

// The reader's own buffer may have been replaced by a larger one in the meantime.
struct ReleaseInput {
    void operator()(AVIOContext* input) const {
        av_freep(&input->buffer);
        avio_context_free(&input);
    }
};

struct ReleaseFormat {
    void operator()(AVFormatContext* format) const { avformat_close_input(&format); }
};

constexpr std::uint32_t fourcc(const char (&text)[5]) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(text[3])) << 24;
}

eEncodeType_t encodeTypeOf(std::uint32_t tag) {
    switch (tag) {
    case fourcc("apch"): return kEncodeApch;
    case fourcc("apcn"): return kEncodeApcn;
    case fourcc("apcs"): return kEncodeApcs;
    case fourcc("apco"): return kEncodeApco;
    case fourcc("ap4h"): return kEncodeAp4h;
    case fourcc("AVdn"): return kEncodeAVdn;
    default: return kEncodeUnknown;
    }
}

const char* tag(const AVDictionary* dictionary, const char* key) {
    const AVDictionaryEntry* entry = av_dict_get(dictionary, key, nullptr, 0);
    return entry == nullptr ? "" : entry->value;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int number(std::string_view digits) {
    int value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

// "2026-11-20T10:00:00.000000Z"
std::optional<std::int64_t> secondsSinceEpoch(std::string_view text) {
    constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd";
    if (text.size() < shape.size()) return std::nullopt;
    for (std::size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == 'd' ? !isDigit(text[i]) : text[i] != shape[i]) return std::nullopt;
    using namespace std::chrono;
    const year_month_day day{year{number(text.substr(0, 4))},
                             month{static_cast<unsigned int>(number(text.substr(5, 2)))},
                             std::chrono::day{static_cast<unsigned int>(number(text.substr(8, 2)))}};
    if (!day.ok()) return std::nullopt;
    return std::int64_t{sys_days{day}.time_since_epoch().count()} * 86400 + number(text.substr(11, 2)) * 3600 +
           number(text.substr(14, 2)) * 60 + number(text.substr(17, 2));
}

// The stream's own timecode comes from its timecode track; the file's may be any text.
std::string startTimecodeOf(const AVFormatContext& format, const AVStream& video) {
    for (const AVDictionary* dictionary : {video.metadata, format.metadata})
        if (const char* text = tag(dictionary, "timecode"); isTimecode(text)) return text;
    return {};
}

std::unique_ptr<AVFormatContext, ReleaseFormat> openFormat(AVIOContext* input) {
    AVFormatContext* format = avformat_alloc_context();
    if (format == nullptr) return nullptr;
    format->pb = input;
    format->io_open = refuseToOpen;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "format_whitelist", "mov", 0);
    av_dict_set(&options, "protocol_whitelist", "", 0);
    av_dict_set(&options, "enable_drefs", "0", 0);
    av_dict_set(&options, "use_absolute_path", "0", 0);
    av_dict_set(&options, "ignore_editlist", "1", 0);
    av_dict_set(&options, "probesize", "1048576", 0);
    av_dict_set_int(&options, "max_streams", kMostStreams, 0);
    // Frees the context itself when it fails.
    const int result = avformat_open_input(&format, "", av_find_input_format("mov"), &options);
    av_dict_free(&options);
    return std::unique_ptr<AVFormatContext, ReleaseFormat>(result < 0 ? nullptr : format);
}

} // namespace

std::optional<QuickTimeHeader> readQuickTimeHeader(int descriptor, std::int64_t size) {
    // Both are the process's: nobody else in it uses this library.
    static std::once_flag once;
    std::call_once(once, [] {
        av_log_set_level(AV_LOG_QUIET);
        av_max_alloc(kLargestAllocation);
    });

    Source source{descriptor, size, 0, kReadBudget};
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
    if (buffer == nullptr) return std::nullopt;
    const std::unique_ptr<AVIOContext, ReleaseInput> input(
        avio_alloc_context(buffer, kBufferSize, 0, &source, readPacket, nullptr, seekPacket));
    if (input == nullptr) {
        av_free(buffer);
        return std::nullopt;
    }
    const auto format = openFormat(input.get());
    if (format == nullptr) return std::nullopt;

    QuickTimeHeader header;
    const AVStream* video = nullptr;
    for (unsigned int i = 0; i < format->nb_streams; ++i) {
        const AVStream* stream = format->streams[i];
        const AVCodecParameters& parameters = *stream->codecpar;
        if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
            header.audioChannels += std::clamp(parameters.ch_layout.nb_channels, 0, kMostAudioChannels / kMostStreams);
        } else if (parameters.codec_type == AVMEDIA_TYPE_VIDEO && video == nullptr &&
                   encodeTypeOf(parameters.codec_tag) != kEncodeUnknown) {
            video = stream;
        }
    }
    if (video == nullptr) return std::nullopt;

    const AVCodecParameters& parameters = *video->codecpar;
    if (parameters.width <= 0 || parameters.height <= 0) return std::nullopt;
    header.encodeType = encodeTypeOf(parameters.codec_tag);
    header.width = parameters.width;
    header.height = parameters.height;
    header.interlaced =
        parameters.field_order != AV_FIELD_UNKNOWN && parameters.field_order != AV_FIELD_PROGRESSIVE;
    const AVRational rate = video->avg_frame_rate.num > 0 ? video->avg_frame_rate : video->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) {
        header.frameRateNumerator = rate.num;
        header.frameRateDenominator = rate.den;
    }
    header.frames = std::max<std::int64_t>(video->nb_frames, 0);
    header.startTimecode = startTimecodeOf(*format, *video);
    header.creationTime = secondsSinceEpoch(tag(format->metadata, "creation_time"));
    return header;
}
