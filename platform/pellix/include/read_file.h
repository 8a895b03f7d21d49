#ifndef MEDIAD_PLATFORM_READ_FILE_H
#define MEDIAD_PLATFORM_READ_FILE_H

#include <string>

// Reads the whole file at `path` into `text`, up to its first NUL byte. False when it could not be read: `text` is then
// empty, and unless the file merely could not be opened, one line says why. Any thread.
bool read_file(const std::string& path, std::string& text);

#endif
