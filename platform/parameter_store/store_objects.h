#ifndef MEDIAD_PLATFORM_STORE_OBJECTS_H
#define MEDIAD_PLATFORM_STORE_OBJECTS_H

// The client contract's objects over any store: the engine itself (in the hosting process, in a simulation) or the
// connection to another process's.

#include <string>

#include "config.h"

template <typename Store>
class StoreConfig : public Config {
public:
    // `store` outlives the object. With `readOnly` every set is refused with kConfigNotPermitted.
    StoreConfig(Store& store, bool readOnly) : _store(store), _readOnly(readOnly) {}

    int setInteger(eParam_t id, int value) override {
        return _readOnly ? kConfigNotPermitted : _store.setInteger(id, value);
    }

    int getInteger(eParam_t id) override {
        int value = 0;
        _store.getInteger(id, value);
        return value;
    }

    int getInteger(eParam_t id, int* value) override { return _store.getInteger(id, *value); }

    int setString(eParam_t id, std::string value) override {
        return _readOnly ? kConfigNotPermitted : _store.setString(id, value);
    }

    int getString(eParam_t id, std::string& value) override { return _store.getString(id, value); }

private:
    Store& _store;
    const bool _readOnly;
};

template <typename Store>
class StoreChannel : public ConfigEventChannel {
public:
    explicit StoreChannel(Store& store) : _store(store) {}

    // Waits for a running callback, unless it runs inside it.
    ~StoreChannel() override { _store.removeListeners(this); }

    void addListener(ConfigEvents* listener) override { _store.addListener(this, listener); }

private:
    Store& _store;
};

#endif
