#ifndef MEDIAD_SLOTS_SLOT_SENSOR_H
#define MEDIAD_SLOTS_SLOT_SENSOR_H

class Card;

// The presence sensor of one slot: bits of a card register. A value to be copied; the card is shared and not owned.
// Any thread may check; the fields do not change after construction.
class SlotSensor {
public:
    // A sensor without a card: nothing is ever present.
    SlotSensor() = default;

    SlotSensor(unsigned int reg, unsigned int mask, unsigned int shift, Card* card);
    SlotSensor(const SlotSensor&) = default;
    SlotSensor& operator=(const SlotSensor&) = default;
    virtual ~SlotSensor() = default;

    // Whether a medium is in the slot. A register that cannot be read means that there is none.
    bool isPresent() const;

private:
    unsigned int _reg = 0;
    unsigned int _shift = 0;
    unsigned int _mask = 0;
    Card* _card = nullptr;
};

#endif
