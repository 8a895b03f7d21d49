// The attribute text of a clip record: a field of 2400 bytes in which any process may have written anything.

#include <cstring>
#include <memory>
#include <vector>

#include "fuzzers/fuzzer.h"
#include "media_attributes.h"

using nevo::media::MediaAttributes;

namespace {

std::map<std::string, std::string> readSlowly(const std::string& text) {
    std::vector<std::string> lines(1);
    for (const char c : text) {
        if (c == '\n')
            lines.emplace_back();
        else
            lines.back() += c;
    }
    std::erase(lines, "");
    std::map<std::string, std::string> attributes;
    for (std::size_t i = 0; i + 1 < lines.size(); i += 2) attributes[lines[i]] = lines[i + 1];
    return attributes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // On the heap, so that reading on behind a text that fills the field shows.
    const auto record = std::make_unique<MediaAttributes>();
    std::memset(record->text, 0, sizeof record->text);
    fuzzers::Input input(data, size);
    std::string text = input.longText();
    text.resize(std::min(text.size(), sizeof record->text));
    std::memcpy(record->text, text.data(), text.size());
    fuzzers::require(record->getAttributesMap() == readSlowly(text.substr(0, text.find('\0'))), "the pairs of lines");
    return 0;
}
