#include "slots/live_card.h"

#include <atomic>

#include "classes/diagnostics/diagnostics.h"
#include "cqrd5.h"

namespace {

// The SDK's selector for this kind of board.
constexpr unsigned short kBoardKind = 0xce;

// Every SDK card there ever was. Nobody may delete one, a thread may still be inside; so they stay reachable here when
// the LiveCard that opened them is gone.
struct OpenedCard {
    CQRD5Card* card;
    OpenedCard* next;
};
constinit std::atomic<OpenedCard*> openedCards{nullptr};

CQRD5Card* keep(CQRD5Card* card) {
    OpenedCard* const entry = new OpenedCard{card, openedCards.load()};
    while (!openedCards.compare_exchange_weak(entry->next, entry)) {
    }
    return card;
}

} // namespace

LiveCard::~LiveCard() = default;

bool LiveCard::Open() {
    CQRD5BoardScan scan(true, kBoardKind);
    if (!scan.ScanHardware(kBoardKind)) {
        report("Can't find the card!");
        return true;
    }
    _card = keep(new CQRD5Card(0, true, scan.boards.front().type, nullptr));
    return _card->Open(0, false, 0, nullptr);
}

bool LiveCard::Close() { return _card != nullptr && _card->Close(); }

bool LiveCard::WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) {
    return _card != nullptr && _card->WriteRegister(reg, value, mask, shift);
}

bool LiveCard::ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) {
    return _card != nullptr && _card->ReadRegister(reg, value, mask, shift);
}
