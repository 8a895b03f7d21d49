#ifndef MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_FILE_H
#define MEDIAD_PLATFORM_PELLIX_CLIPS_CLIP_FILE_H

#include <cstdint>
#include <string>

// A clip or playlist file opened for reading, on a medium that anybody may have written. One thread.
class ClipFile {
public:
    // Opens regular files only: no link is followed, no device or pipe is touched.
    explicit ClipFile(const std::string& path);
    ~ClipFile();
    ClipFile(const ClipFile&) = delete;
    ClipFile& operator=(const ClipFile&) = delete;

    bool isOpen() const { return _descriptor != -1; }
    int descriptor() const { return _descriptor; }
    std::int64_t size() const { return _size; }
    std::int64_t modified() const { return _modified; } // seconds since the epoch

    // Whether some process has the file open for writing at this moment. False where the system cannot tell.
    bool isBeingWritten() const;

private:
    int _descriptor = -1;
    std::int64_t _size = 0;
    std::int64_t _modified = 0;
};

#endif
