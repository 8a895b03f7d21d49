// Clips to delete: the requests are taken and kept apart by name.

#include <sstream>

#include "classes/diagnostics/diagnostics.h"
#include "classes/semaphore/semaphore_helper.h"
#include "media_manager/media_manager.h"

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

int MediaManager::deleteClips(std::set<std::string>& clips) {
    if (clips.empty()) return 0;
    // A request must not stand in the way of later commands, and nothing may be deleted by halves.
    report("clip deletion is not available; the request is dropped");
    removeDeletedClips(clips);
    return 1;
}

void MediaManager::removeDeletedClips(std::set<std::string>& deleted) {
    const SemaphoreHelper lock(&_semaphore, _os);
    for (const std::string& name : deleted) _clipsToDelete.erase(name);
}
