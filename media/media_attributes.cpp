#include "media_attributes.h"

#include <boost/tokenizer.hpp>
#include <cstring>

namespace nevo::media {

std::map<std::string, std::string> MediaAttributes::getAttributesMap() const {
    const std::string lines(text, strnlen(text, kTextSize));
    using Separator = boost::char_separator<char>;
    const boost::tokenizer<Separator> tokens(lines, Separator("\n"));

    std::map<std::string, std::string> attributes;
    for (auto token = tokens.begin(); token != tokens.end(); ++token) {
        const std::string name = *token;
        if (++token == tokens.end()) break;
        attributes[name] = *token;
    }
    return attributes;
}

} // namespace nevo::media
