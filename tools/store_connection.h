#ifndef MEDIAD_TOOLS_STORE_CONNECTION_H
#define MEDIAD_TOOLS_STORE_CONNECTION_H

// mediactl's end of the parameter store: a client only, it never hosts. One thread.

#include <cstdint>
#include <memory>
#include <string>

#include "config.h"
#include "tools/outcome.h"

namespace mediactl {

struct ParameterValue {
    bool isInteger = true;
    std::int32_t integer = 0;
    std::string text;
};

class StoreConnection {
public:
    enum class Access { Read, ReadWrite };

    // Null when nobody serves the store.
    static std::unique_ptr<StoreConnection> connect(Access access);

    ~StoreConnection();
    StoreConnection(const StoreConnection&) = delete;
    StoreConnection& operator=(const StoreConnection&) = delete;

    // The value with the type that it has in the store; an eConfigStatus_t.
    int read(eParam_t id, ParameterValue& value);

    int write(eParam_t id, const ParameterValue& value);

    // The integer, or `otherwise` where the store has none to give.
    std::int32_t integer(eParam_t id, std::int32_t otherwise = 0);

private:
    explicit StoreConnection(Config* config) : _config(config) {}

    Config* _config;
};

// The outcome of a store operation on `id`, with its line on standard error unless it is Done.
Outcome outcomeOf(int status, eParam_t id);

} // namespace mediactl

#endif
