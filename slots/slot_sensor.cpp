#include "slots/slot_sensor.h"

#include "slots/card.h"

SlotSensor::SlotSensor(unsigned int reg, unsigned int mask, unsigned int shift, Card* card)
    : _reg(reg), _shift(shift), _mask(mask), _card(card) {}

bool SlotSensor::isPresent() const {
    if (_card == nullptr) return false;
    unsigned int value = 0;
    if (!_card->ReadRegister(_reg, &value, _mask, _shift)) return false;
    // The value comes back shifted and is held against the mask as it stands, unshifted: board specification files
    // are written for this test, so shifting the mask as well would break every sensor with a shift.
    return (value & _mask) == _mask;
}
