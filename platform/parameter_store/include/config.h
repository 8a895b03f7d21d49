#ifndef MEDIAD_PLATFORM_CONFIG_H
#define MEDIAD_PLATFORM_CONFIG_H

// The parameter store's client contract: typed values under 32-bit identifiers, shared by every process of the
// recorder, and an event channel that tells of every change.
//
// Threads: every operation of a Config may be called from any thread, from inside a change callback too, and so may those of
// the factory and the channel; CreateDescriptors and GetMappingConfig from one. Where another process hosts the store, a set
// or a get waits for its answer, for five seconds at the most; then the host counts as lost.
// Change callbacks come on the store's own thread, one at a time, in the order of the sets.

#include <string>

#include "config_events.h"

// What the set and get operations return. The daemon ignores it; tools report it.
enum eConfigStatus_t : int {
    kConfigOk = 0,
    kConfigRefused = -1,      // the store does not accept this value for this parameter: a string beyond 65536 bytes or
                              // with a NUL, a deletion request with a name that deletion_request.h does not allow,
                              // kParamRecordSetting1302 with a ", \, $ or `, or more than the store has room for
    kConfigWrongType = -2,    // an integer operation on a string parameter, or the other way round
    kConfigNotPermitted = -3, // this process may read but not write
    kConfigUnreachable = -4,  // nobody serves the store at the moment; a get gives the last known value with it
    kConfigUnknown = -5,      // a get of an identifier that nobody has written and no descriptor names
};

// What the factory hands out and takes back.
class ConfigObject {
public:
    virtual ~ConfigObject() = default;
};

class Config : public ConfigObject {
public:
    // Stores `value` and raises exactly one change event, also when the value is the same.
    virtual int setInteger(eParam_t id, int value) = 0;

    // The value; 0 when nobody has written it, the last known one while the store cannot be reached.
    virtual int getInteger(eParam_t id) = 0;

    // As above, into `*value`, which keeps its content when there is nothing to write into it.
    virtual int getInteger(eParam_t id, int* value) = 0;

    virtual int setString(eParam_t id, std::string value) = 0;

    // `value` keeps its content when there is nothing to write into it.
    virtual int getString(eParam_t id, std::string& value) = 0;
};

class ConfigEventChannel : public ConfigObject {
public:
    // From now on `listener` is called for every change, the caller's own included; nothing that happened
    // before is replayed. `listener` must outlive the channel. Releasing the channel waits for a running callback.
    virtual void addListener(ConfigEvents* listener) = 0;
};

// The factory of the store's objects.
class ConfigFactoryImpl {
public:
    static ConfigFactoryImpl& GetInstance();

    virtual ~ConfigFactoryImpl() = default;

    // The one channel there is has the locator kConfigEventLocator; any other gives null. So does a process that has no
    // Config, or whose store nobody serves at the moment.
    virtual ConfigEventChannel* createEventChannel(const std::string& locator) = 0;

    // Takes back a Config or an event channel, in any order; null is ignored. With the last of them the connection to
    // the store ends, or the service of the store where this process hosts it. An event channel waits for a running
    // callback, except when it is released inside one.
    virtual void release(ConfigObject* object) = 0;
};

// The loopback multicast channel of the store's change events.
inline constexpr char kConfigEventLocator[] = "multicast://127.0.0.1:63110/configid=0";

// Builds the store's descriptor tables. Once in a process, before GetMappingConfig.
void CreateDescriptors();

// The store's Config for `transport` ("udp" is the only one there is): attached to the process that hosts the store,
// or, where none does and `host` is true, hosting it in this process. Null when neither can be done, and before
// CreateDescriptors; with `host` a line on standard error says why. No thread, socket or lock of the store exists in a
// process before this. `readOnly` makes a Config whose sets are all refused with kConfigNotPermitted.
//
// Of a lost host a process that asked with `host` tells in a line on standard error; the connection is tried again
// every second. A listener then hears of each parameter that was set meanwhile, once, with its last value.
Config* GetMappingConfig(const std::string& transport, bool readOnly, bool host);

#endif
