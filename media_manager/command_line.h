#ifndef MEDIAD_MEDIA_MANAGER_COMMAND_LINE_H
#define MEDIAD_MEDIA_MANAGER_COMMAND_LINE_H

#include <initializer_list>
#include <string>

// A fixed command line with its "%s" places filled in turn. There are as many `texts` as places: one that is not filled would
// reach the shell as it stands. Any thread.
std::string fillIn(const char* line, std::initializer_list<std::string> texts);

#endif
