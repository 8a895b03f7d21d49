#include "tests/media_manager/fake_clip_finder.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "clip_finder.h"

namespace fakes {

ClipScanner* ClipScanner::current = nullptr;

void ClipScanner::called(Config* finderConfig, const std::string& line) {
    EXPECT_EQ(finderConfig, config) << "a finder on another parameter store: " << line;
    journal.add("clips " + line);
    if (onCall) onCall(line);
}

Clip clip(const std::string& name) {
    Clip made{};
    std::memcpy(made.name, name.data(), std::min(name.size(), sizeof made.name - 1));
    return made;
}

} // namespace fakes

namespace {
const char* word(bool flag) { return flag ? "true" : "false"; }
} // namespace

struct ClipFinder::Handles {};

ClipFinder::ClipFinder(Config* config) : _config(config) {}
ClipFinder::~ClipFinder() = default;

void ClipFinder::scanMedia(std::string path) { fakes::ClipScanner::current->called(_config, "scan " + path); }

std::list<Clip> ClipFinder::findClips(bool playlistSelected, bool filtered, bool refresh) {
    fakes::ClipScanner& scanner = *fakes::ClipScanner::current;
    scanner.called(_config,
                   std::string("find ") + word(playlistSelected) + " " + word(filtered) + " " + word(refresh));
    return filtered && scanner.selected ? *scanner.selected : scanner.found;
}

void ClipFinder::flushClips() { fakes::ClipScanner::current->called(_config, "flushClips"); }

void ClipFinder::flushAll() { fakes::ClipScanner::current->called(_config, "flushAll"); }

std::string ClipFinder::NextClipNameAfterDelete(std::list<Clip> clips, std::string current,
                                                std::set<std::string> deleted) {
    std::string line = "next " + current + " of ";
    for (const Clip& clip : clips) line.append(&clip == &clips.front() ? "" : ",").append(clip.name);
    line += " without ";
    for (const std::string& name : deleted) line.append(name == *deleted.begin() ? "" : "|").append(name);
    fakes::ClipScanner& scanner = *fakes::ClipScanner::current;
    scanner.called(_config, line);
    return scanner.next.value_or(current);
}

bool ClipFinder::removeClip(std::string path) {
    fakes::ClipScanner::current->called(_config, "remove " + path);
    return true;
}

void ClipFinder::ensureNextRecordedTakeIsGreaterThanAnyOnMedia(std::list<Clip>& clips) {
    fakes::ClipScanner::current->called(_config, "number " + std::to_string(clips.size()));
}
