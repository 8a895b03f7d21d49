#include "clip_examiner.h"

#include "clip_examination.h"
#include "clip_file.h"

namespace nevo::media {

bool ClipExaminer::GrokClip(Clip& clip, std::string path, bool /*option*/) {
    const ClipFile file(path);
    return examineClip(file, path, clip) != kEncodeUnknown;
}

std::string ClipExaminer::clipName(const std::string& path) {
    const std::string file = path.substr(path.rfind('/') + 1); // npos + 1 is 0
    return file.substr(0, file.rfind('.'));
}

} // namespace nevo::media
