// Writes the shared segments of a test in steps: write_segments add ENCODE-TYPE CLIP…, scan ENCODE-TYPE DIRECTORY or
// flush. Prints the index that each added clip gets.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clip_finder.h"
#include "media/media_cache.h"
#include "parameters.h"

namespace {

// A store with one value.
class EncodeTypeOnly : public Config {
public:
    explicit EncodeTypeOnly(int encodeType) : _encodeType(encodeType) {}
    int setInteger(eParam_t, int) override { return kConfigOk; }
    int getInteger(eParam_t id) override { return id == kParamEncodeType ? _encodeType : 0; }
    int getInteger(eParam_t, int*) override { return kConfigUnknown; }
    int setString(eParam_t, std::string) override { return kConfigOk; }
    int getString(eParam_t, std::string&) override { return kConfigUnknown; }

private:
    int _encodeType;
};

} // namespace

int main(int count, char** arguments) {
    umask(0);
    if (count < 2) return 2;
    const int encodeType = count > 2 ? std::atoi(arguments[2]) : 0;
    if (std::strcmp(arguments[1], "add") == 0) {
        nevo::media::MediaCache cache("NewCache");
        for (int i = 3; i < count; ++i) {
            int index = -1;
            if (!cache.AddClip(arguments[i], static_cast<unsigned int>(encodeType), index, false)) return 1;
            std::printf("%d\n", index);
        }
        return 0;
    }
    EncodeTypeOnly config(encodeType);
    ClipFinder finder(&config);
    if (std::strcmp(arguments[1], "scan") == 0 && count == 4) {
        finder.scanMedia(arguments[3]);
    } else if (std::strcmp(arguments[1], "flush") == 0) {
        finder.flushAll();
    } else {
        return 2;
    }
    return 0;
}
