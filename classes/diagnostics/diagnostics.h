#ifndef MEDIAD_CLASSES_DIAGNOSTICS_DIAGNOSTICS_H
#define MEDIAD_CLASSES_DIAGNOSTICS_DIAGNOSTICS_H

#include <string>

// Lines on standard error, each in one write, so that lines of several threads do not run into one another. Any thread.

// The daemon's name, `text` and a line end. A text that wants a blank after the name begins with one.
void report(const std::string& text);

// `text` as it stands, its line end included.
void reportPlain(const std::string& text);

// `text` with every control character replaced by "?": for names that somebody else chose.
std::string printable(std::string text);

#endif
