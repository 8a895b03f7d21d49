#ifndef MEDIAD_TOOLS_MEDIA_REQUESTS_H
#define MEDIAD_TOOLS_MEDIA_REQUESTS_H

// The requests that mediad takes through command parameters, each followed to its answer. Every one of them begins to
// watch before it writes, so that no answer is missed. `patience` is how long the answer may take; without one in time
// the outcome is Failed and the request stays posted.

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/outcome.h"

namespace mediactl {

// Counts one more, or one less, process that uses the medium in use.
Outcome acquireStorage(std::chrono::seconds patience);
Outcome releaseStorage(std::chrono::seconds patience);

// Releases the medium in use and takes the next slot's.
Outcome changeToNextSlot(std::chrono::seconds patience);

// What a value other than 0 in kParamSlotChangeCommand tells, for people.
std::string slotChangeRefusal(std::int32_t answer);

// Has the selected slot activated again. mediad does not answer this one: Done means that the request was posted.
Outcome remountSelectedSlot();

// Ends mediad; Done when it has cleaned up, or is gone together with the store. Once it has cleaned up the request is taken
// back, or it would end the next mediad as well. Where mediad is down already nothing is posted, and a request that was left
// standing is taken back: Done.
Outcome shutDown(std::chrono::seconds patience);

} // namespace mediactl

#endif
