#ifndef MEDIAD_BENCHMARKS_PLAIN_SEGMENTS_H
#define MEDIAD_BENCHMARKS_PLAIN_SEGMENTS_H

/* How fast a segment can be changed at all: plain C, one locked visit, nothing checked that a well-formed table makes
 * unnecessary. The limit that segment_editing.h is measured against. */

#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Each locks, maps, changes, unmaps and unlocks; the thread's processor time with the lock, in
 * nanoseconds. `record` is as it
 * stands in the segment; `path` names what goes. */
uint64_t plain_add_clip(int segment, sem_t* lock, const void* record);
uint64_t plain_remove_clip(int segment, sem_t* lock, const char* path);
uint64_t plain_add_playlist(int segment, sem_t* lock, const void* record);

#ifdef __cplusplus
}
#endif

#endif
