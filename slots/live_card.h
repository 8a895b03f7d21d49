#ifndef MEDIAD_SLOTS_LIVE_CARD_H
#define MEDIAD_SLOTS_LIVE_CARD_H

#include "slots/card.h"

class CQRD5Card;

// The board's own card, reached through its maker's SDK. It has no lock: Open comes before the first use from another
// thread, and the SDK takes concurrent register operations.
class LiveCard : public Card {
public:
    LiveCard() = default;
    ~LiveCard() override;
    LiveCard(const LiveCard&) = delete;
    LiveCard& operator=(const LiveCard&) = delete;

    // True also when no card was found, after a line that says so: it is no proof that there is one. Register
    // operations and Close are false until a card is open.
    bool Open() override;
    bool Close() override;
    bool WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) override;
    bool ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) override;

private:
    CQRD5Card* _card = nullptr; // made by Open, never deleted
};

#endif
