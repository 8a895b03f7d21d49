#ifndef MEDIAD_SLOTS_CARD_H
#define MEDIAD_SLOTS_CARD_H

// The registers of the board's video card: presence sensors and register LEDs live behind it. Any thread may call; an
// implementation whose masked writes are not atomic must lock them itself.
class Card {
public:
    virtual ~Card() = default;

    // False when the card is there and cannot be opened.
    virtual bool Open() = 0;
    virtual bool Close() = 0;

    // Replaces the bits of `mask` in register `reg` by `value` shifted left by `shift`; the other bits stay.
    virtual bool WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) = 0;

    // The bits of `mask` in register `reg`, shifted right by `shift`. When the result is false, `*value` means nothing.
    virtual bool ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) = 0;
};

#endif
