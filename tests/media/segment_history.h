#ifndef MEDIAD_TESTS_MEDIA_SEGMENT_HISTORY_H
#define MEDIAD_TESTS_MEDIA_SEGMENT_HISTORY_H

// Histories of the two segments: the same steps are taken by the cache and by a reference that shares nothing with it,
// and after every step both segments are compared, byte by byte and to their ends.

#include <ostream>
#include <string>
#include <vector>

namespace history {

enum class Kind { AddClip, RemoveClip, AddPlaylist, DeletePlaylist };

struct Step {
    Kind kind;
    unsigned int file;       // which of the files, modulo their number
    unsigned int encodeType; // in use when a clip is added
};

std::ostream& operator<<(std::ostream& out, const Step& step);

// Takes the steps on new segments. Empty when cache and reference agreed to the end, else what differed, after which
// step.
std::string run(const std::vector<Step>& steps);

} // namespace history

#endif
