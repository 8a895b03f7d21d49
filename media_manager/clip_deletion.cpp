// Clips to delete: requests are taken on the store's thread and kept by name, and carried out on the loop thread.

#include <list>
#include <optional>
#include <sstream>

#include "classes/semaphore/semaphore_helper.h"
#include "clip_finder.h"
#include "media/media_cache.h"
#include "media_manager/cache_failure.h"
#include "media_manager/media_manager.h"
#include "parameters.h"

using nevo::media::kCachePrefix;
using nevo::media::MediaCache;

namespace {

constexpr char kEveryClip[] = "*";

constexpr int kWaitTries = 20;
constexpr unsigned int kWaitPeriod = 100'000; // microseconds
constexpr int kTransportStopped = 1;

} // namespace

void MediaManager::split(const std::string& text, char separator, std::vector<std::string>& pieces) {
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) pieces.push_back(piece);
}

bool MediaManager::parseClipsToDelete(std::set<std::string>& pending, std::string text) {
    const SemaphoreHelper lock(&_semaphore, _os);
    if (text.empty()) return false;
    std::vector<std::string> names;
    split(text, '|', names);
    pending.insert(names.begin(), names.end());
    return true;
}

std::set<std::string> MediaManager::getClipsToDelete() {
    const SemaphoreHelper lock(&_semaphore, _os);
    return _clipsToDelete;
}

void MediaManager::moveCurrentClipOff(ClipFinder& finder, const std::set<std::string>& clips) {
    std::string current;
    _config->getString(kParamClipName, current);
    const std::string next = finder.NextClipNameAfterDelete(findSelectedClips(finder), current, clips);
    if (next == current) return;
    _config->setString(kParamDeleteClipsStatus, next);
    // Whoever plays the clip needs a moment to let go of it. A recorder that does not answer must not keep a clip alive, so
    // after two seconds the deletion goes on.
    if (next == "N/A") {
        for (int i = 0; i < kWaitTries && _config->getInteger(kParamTransportState) != kTransportStopped; ++i)
            _os.sleepMicroseconds(kWaitPeriod);
    } else {
        std::string now = current;
        for (int i = 0; i < kWaitTries && now == current; ++i) {
            _os.sleepMicroseconds(kWaitPeriod);
            _config->getString(kParamClipName, now);
        }
    }
}

int MediaManager::deleteClips(std::set<std::string>& clips) {
    if (clips.empty()) return 0;
    const std::string directory = _mountPoints[_selectedSlot] + "/NEVO" + "/";
    // Names are quoted but not escaped: a request with a quote in it is refused where it enters the parameter store.
    std::string line = "pushd " + directory + "; rm -f ";
    const bool everyClip = clips.contains(kEveryClip);
    if (everyClip) {
        line += kEveryClip;
    } else {
        for (const std::string& name : clips) line += " \"" + name + "\"";
    }
    line += "; popd";

    std::optional<MediaCache> cache; // lives to the end: other processes see the segments throughout
    try {
        cache.emplace(kCachePrefix);
        ClipFinder finder(_config);
        moveCurrentClipOff(finder, clips);
        if (everyClip) {
            finder.flushClips();
        } else {
            for (const std::string& name : clips) finder.removeClip(directory + name);
        }
    } catch (const std::exception& failure) {
        // The files go all the same: they were asked to, and the index is healed from the directory.
        reportCacheFailure("deleteClips", failure);
    }
    if (!isForeignLink(getStoragePath(_selectedSlot))) _shell->executeCommand(line);
    removeDeletedClips(clips);
    markSettingsChanged();
    updateCurrentSlotCapacityRemaining(true);
    return 1;
}

void MediaManager::removeDeletedClips(std::set<std::string>& deleted) {
    const SemaphoreHelper lock(&_semaphore, _os);
    for (const std::string& name : deleted) _clipsToDelete.erase(name);
}
