#ifndef MEDIAD_PLATFORM_DELETION_REQUEST_H
#define MEDIAD_PLATFORM_DELETION_REQUEST_H

// The value of kParamClipsToDelete: names of files in the maker directory, separated by '|'. The storage manager deletes
// them as root with one line of shell, in which each name stands between double quotes and nothing in it is escaped. So
// the store takes such a value only when every name in it is one of these:
//
//   name                                   meaning
//   *                                      every file that is not hidden
//   (empty)                                nothing
//   any other, with no double quote,       the file of that name; what else a shell would expand (*, ?, [, ~, blanks)
//   backslash, dollar, backtick, slash     is quoted and stands for itself
//   or control character, no dash in
//   front, and neither "." nor ".."

#include <algorithm>
#include <string_view>

// What is wrong with a name, in words that go on from "the name ..."; null for a name that the store takes. The
// separator is no part of a name: whoever joins names looks for it first. Any thread.
inline const char* deletionNameFault(std::string_view name) {
    if (name.starts_with('-')) return "begins with a dash";
    if (name == "." || name == ".." || name.find('/') != name.npos) return "leaves the maker directory";
    if (name.find_first_of("\"\\$`") != name.npos) return "holds a character that a shell would act on";
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
    if (std::any_of(name.begin(), name.end(), isControl)) return "holds a control character";
    return nullptr;
}

// Whether the store takes `names`, a whole value. Any thread.
inline bool isDeletionRequest(std::string_view names) {
    for (;;) {
        const std::size_t end = names.find('|');
        if (deletionNameFault(names.substr(0, end)) != nullptr) return false;
        if (end == names.npos) return true;
        names.remove_prefix(end + 1);
    }
}

#endif
