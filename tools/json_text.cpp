#include "tools/json_text.h"

#include "tools/safe_text.h"

namespace mediactl {

Json jsonObject() { return Json(cJSON_CreateObject()); }

Json jsonArray() { return Json(cJSON_CreateArray()); }

Json jsonText(const std::string& text) { return Json(cJSON_CreateString(validUtf8(text).c_str())); }

void addMember(const Json& to, const std::string& name, Json value) {
    if (cJSON_AddItemToObject(to.get(), validUtf8(name).c_str(), value.get())) static_cast<void>(value.release());
}

void addMember(const Json& to, const std::string& name, const std::string& text) {
    addMember(to, name, jsonText(text));
}

void addMember(const Json& to, const std::string& name, std::int32_t number) {
    addMember(to, name, Json(cJSON_CreateNumber(number)));
}

void addFlag(const Json& to, const std::string& name, bool flag) { addMember(to, name, Json(cJSON_CreateBool(flag))); }

void addElement(const Json& to, Json value) {
    if (cJSON_AddItemToArray(to.get(), value.get())) static_cast<void>(value.release());
}

std::string writtenOut(const Json& document, bool indented) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(
        indented ? cJSON_Print(document.get()) : cJSON_PrintUnformatted(document.get()), &cJSON_free);
    return text ? withoutControlCharacters(text.get()) : std::string();
}

} // namespace mediactl
