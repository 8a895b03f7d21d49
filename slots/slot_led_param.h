#ifndef MEDIAD_SLOTS_SLOT_LED_PARAM_H
#define MEDIAD_SLOTS_SLOT_LED_PARAM_H

#include "config.h"
#include "slots/slot_led.h"

// An LED that somebody else drives (the front panel's own software): the wanted state is written to a parameter, as the
// number of its eStorageLEDStatus_t.
class SlotLEDParam : public SlotLED {
public:
    // `config` is shared and must outlive the LED.
    SlotLEDParam(eParam_t param, Config* config);

    void lightOn() override;
    void lightOff() override;
    void lightFlash() override;

private:
    void show(eStorageLEDStatus_t status);

    const eParam_t _param;
    Config* const _config;
};

#endif
