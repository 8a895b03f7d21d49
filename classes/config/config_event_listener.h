#ifndef MEDIAD_CLASSES_CONFIG_CONFIG_EVENT_LISTENER_H
#define MEDIAD_CLASSES_CONFIG_CONFIG_EVENT_LISTENER_H

// The base of everything that listens to parameter changes: override what you want to hear of.
// All calls come on the parameter store's own thread, one at a time: what one waits for, all that follow wait for. The order
// of the operations is the store's contract: new ones go to the end.

#include "platform/parameter_store/include/config_events.h"

// A binary-data event means that somebody subscribed to what nobody here can read: that aborts, in builds
// without assertions too, so the assertion is compiled in whatever NDEBUG says.
#pragma push_macro("NDEBUG")
#undef NDEBUG
#include <cassert>

class ConfigEventListener : public ConfigEvents {
public:
    // Out of line in config_event_listener.cpp: it anchors the class's tables there.
    ~ConfigEventListener() override;

    // An integer parameter changed. Values are signed in the store and arrive here as their bits.
    void ParamChanged(eParam_t id, unsigned int value, timeval when) override = 0;

    // A string parameter changed.
    void ParamChanged(eParam_t id, std::string value, timeval when) override = 0;

    // A binary-data parameter changed. Whoever expects one overrides this; it returns whether the data were
    // taken. Field reports quote the assertion with its line: leave it on line 30.
    bool DataChanged(eParam_t /*id*/, std::string& /*data*/, timeval /*when*/) override {
        assert(false);
        return false;
    }

    // The generic form of any of the above; not needed by a listener that overrides those.
    void ParamChanged(ConfigEvent event) override;
};

#pragma pop_macro("NDEBUG")
#include <cassert>

#endif
