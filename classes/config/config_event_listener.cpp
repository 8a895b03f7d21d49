#include "classes/config/config_event_listener.h"

ConfigEventListener::~ConfigEventListener() = default;

void ConfigEventListener::ParamChanged(ConfigEvent /*event*/) {}
