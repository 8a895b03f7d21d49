#include "platform/parameter_store/value_rules.h"

eConfigStatus_t checkValue(eParam_t /*id*/, int /*value*/) { return kConfigOk; }

eConfigStatus_t checkValue(eParam_t /*id*/, std::string_view value) {
    if (value.size() > kLongestString || value.find('\0') != std::string_view::npos) return kConfigRefused;
    return kConfigOk;
}
