#ifndef MEDIAD_PLATFORM_CQRD5_H
#define MEDIAD_PLATFORM_CQRD5_H

// The card SDK: finding the video card and reading and writing its registers. Register operations may be called from
// any thread of any process at the same time; masked writes are atomic.

#include <cstdint>
#include <vector>

class CQRD5BoardScan {
public:
    struct Board {
        unsigned short type;
    };

    CQRD5BoardScan(bool local, unsigned short boardKind);
    ~CQRD5BoardScan();

    // Looks for boards of the given kind, 0xce for the recorder's card; false when there is none. The boards found are in
    // `boards`. One thread at a time.
    bool ScanHardware(unsigned short boardKind);

    std::vector<Board> boards;
};

class CQRD5Card {
public:
    CQRD5Card(unsigned short boardIndex, bool local, unsigned short boardType, const char* hostName);
    virtual ~CQRD5Card();

    // Open and the destructor want the card to themselves. Open is false when there is no card, Close when it is not open.
    // After Close, which may come at any time, and before Open every register operation is false, as it is for a register
    // that the card does not have; `*value` then stays as it is.
    virtual bool Open(unsigned short boardIndex, bool shared, unsigned short boardType, const char* hostName);
    virtual bool Close();

    // Replaces the bits of `mask` in register `reg` by `value` shifted left by `shift`.
    virtual bool WriteRegister(unsigned int reg, unsigned int value, unsigned int mask, unsigned int shift);

    // Reads the bits of `mask` in register `reg`, shifted right by `shift`.
    virtual bool ReadRegister(unsigned int reg, unsigned int* value, unsigned int mask, unsigned int shift);

private:
    struct RegisterFile;
    RegisterFile* _registers;
};

#endif
