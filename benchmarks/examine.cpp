// bench_examine FOLDER: opens every file of the folder and reads its QuickTime header, on one thread; prints the seconds
// that it took and the number of clips. Linked into one piece, so that it runs on the virtual recorder.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "platform/pellix/clip_probe/quicktime_reader.h"

int main(int words, char** word) {
    if (words != 2) return 2;
    const auto begin = std::chrono::steady_clock::now();
    DIR* const folder = ::opendir(word[1]);
    if (folder == nullptr) return 1;
    int clips = 0;
    while (const dirent* const entry = ::readdir(folder)) {
        const int file = ::openat(::dirfd(folder), entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
        struct stat status;
        if (file == -1) continue;
        if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && readQuickTimeHeader(file, status.st_size)) ++clips;
        ::close(file);
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    std::printf("%.6f %d\n", time.count(), clips);
    return 0;
}
