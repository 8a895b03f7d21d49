#ifndef MEDIAD_TOOLS_CLIP_LISTING_H
#define MEDIAD_TOOLS_CLIP_LISTING_H

// The clips and playlists of the medium in use, as the shared segments hold them. Where there are no segments yet, the
// list is empty and a line on standard error says so.

#include "tools/outcome.h"

namespace mediactl {

// As a table, or as a JSON array of {index, name, time, encode_match, attributes{}}.
Outcome listClips(bool json);

// Until the process is ended: redrawn in place on a terminal (the newest clips, where it is too small for all), elsewhere
// one table, or one line of JSON, for each change.
Outcome watchClips(bool json);

// As a table with each playlist's clips below its line, or as a JSON array of {index, name, title, path, modified, text,
// clips[], complete}.
Outcome listPlaylists(bool json);

} // namespace mediactl

#endif
