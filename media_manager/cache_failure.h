#ifndef MEDIAD_MEDIA_MANAGER_CACHE_FAILURE_H
#define MEDIAD_MEDIA_MANAGER_CACHE_FAILURE_H

#include <boost/interprocess/exceptions.hpp>

// A failure of the shared clip cache ends here, at the operation that made the cache: one line, and the loop goes on.
void reportCacheFailure(const char* operation, const boost::interprocess::interprocess_exception& failure);

#endif
