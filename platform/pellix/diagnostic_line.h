#ifndef MEDIAD_PLATFORM_DIAGNOSTIC_LINE_H
#define MEDIAD_PLATFORM_DIAGNOSTIC_LINE_H

#include <string>

// Writes the daemon's name, `text` and a line end to standard error, in one write. Keeps errno. Any thread.
void writeDiagnosticLine(const std::string& text);

// As above, with ": " and what the error number `error` means behind `text`.
void writeDiagnosticLine(const std::string& text, int error);

#endif
