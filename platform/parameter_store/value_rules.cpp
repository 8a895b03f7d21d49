#include "platform/parameter_store/value_rules.h"

#include "deletion_request.h"
#include "parameters.h"

eConfigStatus_t checkValue(eParam_t /*id*/, int /*value*/) { return kConfigOk; }

eConfigStatus_t checkValue(eParam_t id, std::string_view value) {
    if (value.size() > kLongestString || value.find('\0') != std::string_view::npos) return kConfigRefused;
    if (id == kParamClipsToDelete && !isDeletionRequest(value)) return kConfigRefused;
    // The storage manager reads this setting as a deletion request as well. What it may say is its owner's business, a
    // slash or a dash in front too; but what ends or leaves the quotes of a command line is no setting.
    if (id == kParamRecordSetting1302 && value.find_first_of("\"\\$`") != std::string_view::npos) return kConfigRefused;
    return kConfigOk;
}
