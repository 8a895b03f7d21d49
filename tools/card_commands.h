#ifndef MEDIAD_TOOLS_CARD_COMMANDS_H
#define MEDIAD_TOOLS_CARD_COMMANDS_H

// The register file that takes the card's place. Numbers are texts as parseBits takes them; an empty mask is all bits,
// an empty shift none.

#include <string>

#include "tools/outcome.h"

namespace mediactl {

// Makes the register file; one that exists keeps its registers.
Outcome createCard();

// Prints the masked and shifted register, as a signed integer.
Outcome readCard(const std::string& reg, const std::string& mask, const std::string& shift);

Outcome writeCard(const std::string& reg, const std::string& value, const std::string& mask, const std::string& shift);

} // namespace mediactl

#endif
