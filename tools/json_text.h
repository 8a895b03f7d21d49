#ifndef MEDIAD_TOOLS_JSON_TEXT_H
#define MEDIAD_TOOLS_JSON_TEXT_H

// JSON output by way of cJSON. Every text passes validUtf8, so the output is valid whatever the text holds.

#include <cJSON.h>

#include <cstdint>
#include <memory>
#include <string>

namespace mediactl {

struct JsonDeleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

Json jsonObject();
Json jsonArray();
Json jsonText(const std::string& text);

// Adds a member to the object `to`. Names within an object are the caller's to keep apart.
void addMember(const Json& to, const std::string& name, Json value);
void addMember(const Json& to, const std::string& name, const std::string& text);
void addMember(const Json& to, const std::string& name, std::int32_t number);
void addFlag(const Json& to, const std::string& name, bool flag);

// Adds an element to the array `to`.
void addElement(const Json& to, Json value);

// The document as text, without a line feed behind it: indented for people, or all of it on one line.
std::string writtenOut(const Json& document, bool indented);

} // namespace mediactl

#endif
