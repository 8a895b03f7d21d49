#include "media_manager/cache_failure.h"

#include <string>

#include "classes/diagnostics/diagnostics.h"

void reportCacheFailure(const char* operation, const std::exception& failure) {
    report(std::string(operation) + ": the shared clip cache cannot be used: " + failure.what());
}
