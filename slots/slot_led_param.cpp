#include "slots/slot_led_param.h"

SlotLEDParam::SlotLEDParam(eParam_t param, Config* config) : _param(param), _config(config) {}

void SlotLEDParam::lightOn() { show(eStorageLEDOn); }

void SlotLEDParam::lightOff() { show(eStorageLEDOff); }

void SlotLEDParam::lightFlash() { show(eStorageLEDFlash); }

void SlotLEDParam::show(eStorageLEDStatus_t status) {
    if (changeStatus(status)) _config->setInteger(_param, status);
}
