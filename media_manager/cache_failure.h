#ifndef MEDIAD_MEDIA_MANAGER_CACHE_FAILURE_H
#define MEDIAD_MEDIA_MANAGER_CACHE_FAILURE_H

#include <exception>

// A failure of the shared clip cache, or of the memory for what is in it, ends here, at the operation that made the cache:
// one line, and the loop goes on.
void reportCacheFailure(const char* operation, const std::exception& failure);

#endif
