#include "tools/card_commands.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

#include "card_register_file.h"
#include "tools/parameter_text.h"

namespace mediactl {

namespace {

struct Field {
    std::uint32_t reg = 0;
    std::uint32_t mask = 0xffffffff;
    std::uint32_t shift = 0;
};

// An empty text leaves `number` as it is. False, with the line said, for what is no number.
bool parseNumber(const std::string& text, const char* what, std::uint32_t& number) {
    if (text.empty()) return true;
    const std::optional<std::uint32_t> bits = parseBits(text);
    if (bits)
        number = *bits;
    else
        say("\"" + text + "\" is no 32-bit number, and the " + what + " is one");
    return bits.has_value();
}

bool parseField(const std::string& reg, const std::string& mask, const std::string& shift, Field& field) {
    if (reg.empty() || !parseNumber(reg, "register", field.reg) || !parseNumber(mask, "mask", field.mask) ||
        !parseNumber(shift, "shift", field.shift)) {
        if (reg.empty()) say("the register is missing");
        return false;
    }
    if (field.reg < CardRegisterFile::kRegisters) return true;
    say("there is no register " + reg + "; the last one is " + std::to_string(CardRegisterFile::kRegisters - 1));
    return false;
}

Outcome failNoCard() {
    return fail(Outcome::Failed,
                std::string("no register file: ") + std::strerror(errno) + " (\"mediactl card create\" makes one)");
}

} // namespace

Outcome createCard() {
    if (CardRegisterFile::create()) return Outcome::Done;
    return fail(Outcome::Failed, std::string("the register file cannot be made: ") + std::strerror(errno));
}

Outcome readCard(const std::string& reg, const std::string& mask, const std::string& shift) {
    Field field;
    if (!parseField(reg, mask, shift, field)) return Outcome::WrongUsage;
    const std::unique_ptr<CardRegisterFile> card = CardRegisterFile::open();
    if (!card) return failNoCard();
    std::uint32_t value = 0;
    if (!card->read(field.reg, value, field.mask, field.shift))
        return fail(Outcome::Failed, "the register cannot be read");
    std::cout << static_cast<std::int32_t>(value) << '\n';
    return Outcome::Done;
}

Outcome writeCard(const std::string& reg, const std::string& value, const std::string& mask, const std::string& shift) {
    Field field;
    std::uint32_t bits = 0;
    if (!parseField(reg, mask, shift, field)) return Outcome::WrongUsage;
    if (value.empty()) return fail(Outcome::WrongUsage, "the value is missing");
    if (!parseNumber(value, "value", bits)) return Outcome::WrongUsage;
    const std::unique_ptr<CardRegisterFile> card = CardRegisterFile::open();
    if (!card) return failNoCard();
    if (!card->write(field.reg, bits, field.mask, field.shift))
        return fail(Outcome::Failed, "the register cannot be written");
    return Outcome::Done;
}

} // namespace mediactl
