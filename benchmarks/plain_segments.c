#define _GNU_SOURCE
#include "benchmarks/plain_segments.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>

enum {
    CLIP_FRONT = 19,
    CLIP_STRIDE = 6536,
    CLIP_BYTES = 6533,
    CLIP_TIME = 4096,
    CLIP_SIZE = CLIP_FRONT + CLIP_STRIDE * 4096,
    PLAYLIST_FRONT = 23,
    PLAYLIST_STRIDE = 8196,
    PLAYLIST_SIZE = PLAYLIST_FRONT + PLAYLIST_STRIDE * 1024
};

static uint64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return (uint64_t)time.tv_sec * 1000000000U + (uint64_t)time.tv_nsec;
}

static unsigned char* map(int segment, size_t size) {
    void* memory = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, segment, 0);
    if (memory == MAP_FAILED) abort();
    return memory;
}

static unsigned char* clip(unsigned char* segment, uint32_t index) {
    return segment + CLIP_FRONT + (size_t)CLIP_STRIDE * index;
}

static int32_t time_of(const unsigned char* record) {
    int32_t time;
    memcpy(&time, record + CLIP_TIME, sizeof time);
    return time;
}

uint64_t plain_add_clip(int segment, sem_t* lock, const void* record) {
    while (sem_wait(lock) == -1) {
    }
    const uint64_t begin = now();
    unsigned char* const bytes = map(segment, CLIP_SIZE);
    uint32_t count;
    memcpy(&count, bytes + 15, sizeof count);
    for (uint32_t i = 0; i < count; ++i)
        if (strcmp((const char*)clip(bytes, i), record) == 0) abort();
    uint32_t place = count;
    const int32_t time = time_of(record);
    for (; place > 0 && time_of(clip(bytes, place - 1)) > time; --place)
        memcpy(clip(bytes, place), clip(bytes, place - 1), CLIP_BYTES);
    memcpy(clip(bytes, place), record, CLIP_BYTES);
    ++count;
    memcpy(bytes + 15, &count, sizeof count);
    munmap(bytes, CLIP_SIZE);
    const uint64_t held = now() - begin;
    sem_post(lock);
    return held;
}

uint64_t plain_remove_clip(int segment, sem_t* lock, const char* path) {
    while (sem_wait(lock) == -1) {
    }
    const uint64_t begin = now();
    unsigned char* const bytes = map(segment, CLIP_SIZE);
    uint32_t count;
    memcpy(&count, bytes + 15, sizeof count);
    uint32_t at = 0;
    while (at < count && strstr(path, (const char*)clip(bytes, at)) == NULL) ++at;
    if (at == count) abort();
    --count;
    for (; at < count; ++at) memcpy(clip(bytes, at), clip(bytes, at + 1), CLIP_BYTES);
    memcpy(bytes + 15, &count, sizeof count);
    munmap(bytes, CLIP_SIZE);
    const uint64_t held = now() - begin;
    sem_post(lock);
    return held;
}

/* The name of a playlist is its path's last part up to ".playlist". */
static size_t name_of(const char* path, const char** name) {
    const char* const slash = strrchr(path, '/');
    *name = slash == NULL ? path : slash + 1;
    const char* const end = strstr(*name, ".playlist");
    return end == NULL ? strlen(*name) : (size_t)(end - *name);
}

static int compare(const char* name_a, size_t size_a, const char* name_b, size_t size_b) {
    const int order = memcmp(name_a, name_b, size_a < size_b ? size_a : size_b);
    return order != 0 ? order : (size_a > size_b) - (size_a < size_b);
}

uint64_t plain_add_playlist(int segment, sem_t* lock, const void* record) {
    while (sem_wait(lock) == -1) {
    }
    const uint64_t begin = now();
    unsigned char* const bytes = map(segment, PLAYLIST_SIZE);
    uint32_t count;
    memcpy(&count, bytes + 19, sizeof count);
    uint32_t place = 0;
    const char *name, *its;
    const size_t size = name_of(record, &name);
    for (; place < count; ++place) {
        const size_t its_size = name_of((const char*)bytes + PLAYLIST_FRONT + (size_t)PLAYLIST_STRIDE * place, &its);
        if (compare(its, its_size, name, size) >= 0) break;
    }
    unsigned char* const here = bytes + PLAYLIST_FRONT + (size_t)PLAYLIST_STRIDE * place;
    memmove(here + PLAYLIST_STRIDE, here, (size_t)PLAYLIST_STRIDE * (count - place));
    memcpy(here, record, PLAYLIST_STRIDE);
    ++count;
    memcpy(bytes + 19, &count, sizeof count);
    munmap(bytes, PLAYLIST_SIZE);
    const uint64_t held = now() - begin;
    sem_post(lock);
    return held;
}
