#ifndef MEDIAD_PLATFORM_MEDIA_ATTRIBUTES_H
#define MEDIAD_PLATFORM_MEDIA_ATTRIBUTES_H

#include <map>
#include <string>

namespace nevo::media {

// Names in the attribute text.
inline constexpr char MediaFormat[] = "Format";
inline constexpr char MediaHeight[] = "Height";
inline constexpr char MediaWidth[] = "Width";
inline constexpr char MediaFrameRate[] = "Frame Rate";
inline constexpr char MediaVideoEncodeType[] = "Encode Type";
inline constexpr char MediaAudioChannels[] = "Audio Chan";
inline constexpr char MediaStartingTimecode[] = "Starting TC";

// The attribute text of a clip: lines separated by line feeds, a name line and its value line in turn.
class MediaAttributes {
public:
    static constexpr std::size_t kTextSize = 2400;

    // The text as a map; the last value of a name counts, a name without a value is dropped, empty lines do not
    // count. The text ends at its first NUL byte or with the field. (media/media_attributes.cpp)
    std::map<std::string, std::string> getAttributesMap() const;

    char text[kTextSize];
};

} // namespace nevo::media

#endif
