#include "clip_examiner.h"

#include <memory>
#include <utility>

#include "clip_examination.h"
#include "clip_file.h"
#include "clip_reader.h"

namespace nevo::media {

bool ClipExaminer::GrokClip(Clip& clip, std::string path, bool /*option*/) {
    // The name is the clip's identity, and an empty one is part of every other.
    if (clipName(path).empty()) return false;
    auto file = std::make_unique<ClipFile>(path);
    if (!file->isOpen()) return false;
    bool usable = false;
    ClipReader reader;
    reader.read(std::move(file), path,
                [&](ClipReader::Outcome outcome, const ClipFile& read, const QuickTimeHeader& header) {
                    usable = outcome == ClipReader::Outcome::Usable;
                    if (usable) fillClip(clip, path, read.modified(), header);
                });
    reader.finish();
    return usable;
}

} // namespace nevo::media
