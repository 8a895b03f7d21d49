#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_MEDIUM_INDEX_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_MEDIUM_INDEX_H

// What the directory of a medium says about the records of the shared segments.
//
// The segments follow single files as they come and go; the rules for that can drop a neighbour, and an event can get
// lost. Here the records are compared with the whole directory. To make that cheap, the process remembers what it has
// found in the files of the last directory it looked at, as long as a file's size, modification time and number on the
// medium stay the same. What is remembered only serves to see that nothing has to be done: a file is examined anew
// before its record is added, replaced or taken out.
//
// Any thread; what is remembered is guarded by a lock that is never held during input and output.

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "clip.h"

// The names in a directory, sorted, so that nothing depends on how the file system arranges them. Nothing, after one
// line on standard error, when it cannot be read to its end.
std::optional<std::vector<std::string>> listDirectory(const std::string& path);

// Bring `records`, in segment order, in step with the files `names` in `directory`; true when that changed anything.
// - A record goes when there is no file that gives its name, when that file is not usable, or when it is there twice.
// - A record is replaced when it does not say what its file says; the codec flag does not count.
// - A usable file without a record gets one, behind the older records of the same time; its codec flag is set against
//   `encodeType`.
// - Files that are open for writing, or cannot be opened, are left alone: their records are neither added nor dropped.
// - Of several usable files that give one name the last in the order of `names` counts.
// - Of the files for which there is no room the newest clips and the first playlists get in; a change in how many stay
//   out is said in one line.
bool bringClipsInStep(std::list<Clip>& records, const std::string& directory, const std::vector<std::string>& names,
                      unsigned int encodeType);
bool bringPlaylistsInStep(std::list<nevo::media::PlaylistCacheEntry>& records, const std::string& directory,
                          const std::vector<std::string>& names);

// Forgets what was found in the files: the next look examines every one.
void forgetExaminedFiles();

#endif
