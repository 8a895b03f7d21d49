#ifndef MEDIAD_PLATFORM_CARD_REGISTER_FILE_H
#define MEDIAD_PLATFORM_CARD_REGISTER_FILE_H

// The register file that takes the card's place on a machine without one: 65,536 registers of 32 bits in shared memory,
// in the machine's byte order. The board scan finds a card when the file exists. Tools create it and play the hardware.
// Any thread may call any operation.

#include <cstddef>
#include <cstdint>
#include <memory>

class CardRegisterFile {
public:
    static constexpr char kName[] = "/mediad-card"; // as shm_open takes it
    static constexpr std::size_t kRegisters = 65536;

    // Makes the register file, all zeros, for its owner only (mode 0600); one that exists is kept as it is. False with
    // errno on failure; EINVAL: what stands there has another size, is no register file and is left alone.
    static bool create();

    // Null with errno when there is none; EINVAL: what stands there has another size, so it is none. While it is open
    // nobody may make the file shorter.
    static std::unique_ptr<CardRegisterFile> open();

    ~CardRegisterFile();
    CardRegisterFile(const CardRegisterFile&) = delete;
    CardRegisterFile& operator=(const CardRegisterFile&) = delete;

    // As the card's operations of the same meaning: false for a register past the end; a shift of 32 or more
    // moves everything out. Atomic between processes.
    bool write(unsigned int reg, std::uint32_t value, std::uint32_t mask, unsigned int shift);
    bool read(unsigned int reg, std::uint32_t& value, std::uint32_t mask, unsigned int shift) const;

private:
    explicit CardRegisterFile(std::uint32_t* registers);
    std::uint32_t* _registers;
};

#endif
