#ifndef MEDIAD_PLATFORM_CONFIG_EVENTS_H
#define MEDIAD_PLATFORM_CONFIG_EVENTS_H

// What the parameter store calls when a parameter changes. Clients derive from ConfigEventListener
// (classes/config), which adds the defaults; the store knows this interface only.

#include <sys/time.h>

#include <cstdint>
#include <string>

// A parameter's identifier, written as eight hexadecimal digits.
using eParam_t = std::uint32_t;

// The generic form of a change event.
struct ConfigEvent {
    eParam_t id;
    bool isInteger;
    int integer;      // the value when isInteger
    std::string text; // the value otherwise
    timeval when;
};

// The order of the operations is part of the contract: the store's library calls them by their place. A change is one
// call, of the form that fits the parameter's type; the generic form is none of its calls. All of them come on the store's
// own thread, one at a time, in the order of the sets. `when` is the wall clock's time; an integer comes as the bits of its
// signed value.
class ConfigEvents {
public:
    virtual ~ConfigEvents() = default;
    virtual void ParamChanged(eParam_t id, unsigned int value, timeval when) = 0;
    virtual void ParamChanged(eParam_t id, std::string value, timeval when) = 0;
    virtual bool DataChanged(eParam_t id, std::string& data, timeval when) = 0;
    virtual void ParamChanged(ConfigEvent event) = 0;
};

#endif
