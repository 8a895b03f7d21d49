#include "cqrd5.h"

#include <atomic>
#include <memory>

#include "card_register_file.h"

namespace {

// The one kind of board that the register file stands for.
constexpr unsigned short kBoardKind = 0xce;

} // namespace

CQRD5BoardScan::CQRD5BoardScan(bool, unsigned short) {}
CQRD5BoardScan::~CQRD5BoardScan() = default;

bool CQRD5BoardScan::ScanHardware(unsigned short boardKind) {
    boards.clear();
    if (boardKind == kBoardKind && CardRegisterFile::open() != nullptr) boards.push_back({kBoardKind});
    return !boards.empty();
}

// Closing only shuts the door: a register operation that is under way on another thread finds its memory until the card
// is deleted or opened again.
struct CQRD5Card::RegisterFile {
    std::unique_ptr<CardRegisterFile> file;
    std::atomic<bool> open{false};
};

CQRD5Card::CQRD5Card(unsigned short, bool, unsigned short, const char*) : _registers(new RegisterFile) {}
CQRD5Card::~CQRD5Card() { delete _registers; }

bool CQRD5Card::Open(unsigned short, bool, unsigned short, const char*) {
    _registers->open = false;
    _registers->file = CardRegisterFile::open();
    _registers->open = _registers->file != nullptr;
    return _registers->open;
}

bool CQRD5Card::Close() { return _registers->open.exchange(false); }

bool CQRD5Card::WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift) {
    return _registers->open && _registers->file->write(reg, value, mask, shift);
}

bool CQRD5Card::ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift) {
    std::uint32_t bits = 0;
    if (!_registers->open || !_registers->file->read(reg, bits, mask, shift)) return false;
    *value = bits;
    return true;
}
