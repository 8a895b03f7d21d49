#include "tools/store_connection.h"

#include "tools/parameter_text.h"

namespace mediactl {

std::unique_ptr<StoreConnection> StoreConnection::connect(Access access) {
    CreateDescriptors();
    Config* config = GetMappingConfig("udp", access == Access::Read, false);
    if (!config) return nullptr;
    return std::unique_ptr<StoreConnection>(new StoreConnection(config));
}

StoreConnection::~StoreConnection() { ConfigFactoryImpl::GetInstance().release(_config); }

int StoreConnection::read(eParam_t id, ParameterValue& value) {
    // An identifier outside the table has the type of its first write, which only the store knows.
    const ParameterDescriptor* descriptor = findParameter(id);
    if (!descriptor || descriptor->type == ParameterType::Integer) {
        value.isInteger = true;
        int integer = 0;
        const int status = _config->getInteger(id, &integer);
        value.integer = integer;
        if (status != kConfigWrongType) return status;
    }
    value.isInteger = false;
    return _config->getString(id, value.text);
}

int StoreConnection::write(eParam_t id, const ParameterValue& value) {
    return value.isInteger ? _config->setInteger(id, value.integer) : _config->setString(id, value.text);
}

std::int32_t StoreConnection::integer(eParam_t id, std::int32_t otherwise) {
    int value = otherwise;
    return _config->getInteger(id, &value) == kConfigOk ? value : otherwise;
}

Outcome outcomeOf(int status, eParam_t id) {
    const ParameterDescriptor* descriptor = findParameter(id);
    const std::string name = descriptor ? descriptor->name : identifierText(id);
    switch (status) {
    case kConfigOk: return Outcome::Done;
    case kConfigRefused: return fail(Outcome::Failed, name + ": the store does not accept this value");
    case kConfigWrongType: return fail(Outcome::Failed, name + ": the store holds a value of the other type");
    case kConfigNotPermitted:
        return fail(Outcome::Failed, name + ": not permitted; only root and members of the group mediad may write");
    case kConfigUnreachable: return failNobodyServes();
    case kConfigUnknown: return fail(Outcome::Failed, name + ": nobody has written this parameter yet");
    default: return fail(Outcome::Failed, name + ": the store answers with status " + std::to_string(status));
    }
}

} // namespace mediactl
