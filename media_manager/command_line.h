#ifndef MEDIAD_MEDIA_MANAGER_COMMAND_LINE_H
#define MEDIAD_MEDIA_MANAGER_COMMAND_LINE_H

#include <initializer_list>
#include <string>

// A fixed command line with its "%s" places filled in turn.
std::string fillIn(const char* line, std::initializer_list<std::string> texts);

#endif
