#ifndef MEDIAD_TOOLS_STORE_CLIENT_H
#define MEDIAD_TOOLS_STORE_CLIENT_H

// mediactl's end of the parameter store: a client only, it never hosts. One thread.

#include <cstdint>
#include <memory>
#include <string>

#include "config.h"
#include "tools/outcome.h"

struct ParameterValue {
    bool isInteger = true;
    std::int32_t integer = 0;
    std::string text;
};

class StoreClient {
public:
    enum class Access { Read, ReadWrite };

    // Null when nobody serves the store.
    static std::unique_ptr<StoreClient> connect(Access access);

    ~StoreClient();
    StoreClient(const StoreClient&) = delete;
    StoreClient& operator=(const StoreClient&) = delete;

    // The value with the type that it has in the store; an eConfigStatus_t.
    int read(eParam_t id, ParameterValue& value);

    int write(eParam_t id, const ParameterValue& value);

    // The integer, or `otherwise` where the store has none to give.
    std::int32_t integer(eParam_t id, std::int32_t otherwise = 0);

    // The string, empty where the store has none to give.
    std::string text(eParam_t id);

    // Writes an integer and tells, in a line of its own, why that was not possible.
    Outcome request(eParam_t id, std::int32_t value);

private:
    explicit StoreClient(Config* config) : _config(config) {}

    Config* _config;
};

// The outcome of a store operation on `id`, with its line on standard error unless it is Done.
Outcome outcomeOf(int status, eParam_t id);

#endif
