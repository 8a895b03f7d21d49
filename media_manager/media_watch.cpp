// What changes on the medium in use. The medium is indexed when it is activated; changes made to it while it is in use
// are not followed yet, so there is nothing to open, to read or to refresh here.

#include "media_manager/media_manager.h"

void MediaManager::setup_inotify() {}

void MediaManager::teardown_inotify() {}

bool MediaManager::watchPath(std::string /*path*/) { return false; }

void MediaManager::checkMediaEvents() {}

void MediaManager::checkMediaUpdated() { _cacheRefreshRequested = false; }
