#ifndef MEDIAD_PLATFORM_STORE_JOURNAL_H
#define MEDIAD_PLATFORM_STORE_JOURNAL_H

// Keeps the values for the next process that hosts the store. Each accepted set is in the file when the set returns, so
// even a killed host loses nothing; command parameters are left out, so that an old request never fires twice.
//
// The file, every number in network byte order:
//
//   offset size
//        0    8  kJournalMark
//        8    …  records, each set a record of its own; of one identifier the last one counts
//
//   record    0    4  kRecordMark
//             4    4  CRC-32 (the reflected 0xedb88320 one) of everything behind it
//             8    4  identifier
//            12    4  type: 0 integer, 1 string
//            16    4  size of the content in bytes
//            20    …  content: i32, or the string's bytes
//
// When the records of old values outgrow the others, the file is written anew and takes the place of the old one. A
// damaged file costs what stands at the damage; whatever is whole behind it is found by its mark and its CRC.

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_engine.h"

inline constexpr char kJournalMark[] = "mdvalue1";
inline constexpr std::uint32_t kRecordMark = 0x6d767263; // "mvrc"
inline constexpr std::size_t kRecordHeadSize = 20;

// Guarded by the engine's lock once it is an observer.
class StoreJournal : public StoreObserver {
public:
    explicit StoreJournal(std::string path);

    // Puts the file's values into `engine` and begins a new file with them. What cannot be read or written is told in
    // one line on standard error and costs nothing but itself: the store runs without the file too. Before the engine
    // has other users.
    void open(StoreEngine& engine);

    void changed(eParam_t id, const StoreEntry& entry, timeval when, const StoreTable& table) override;

private:
    using Bytes = std::vector<std::uint8_t>;

    void load(StoreEngine& engine);
    bool writeAnew(const StoreTable& table);
    bool append(const Bytes& record);
    void giveUp();
    static bool isKept(eParam_t id);
    static void appendRecord(Bytes& bytes, eParam_t id, const StoreEntry& entry);

    const std::string _path;
    local_socket::Descriptor _file;
    off_t _size = 0;         // of the whole records in the file
    off_t _sizeAnew = 0;     // of the file when it was written last
    bool _said = false;      // the file's failure has been told
    std::time_t _tryAgain = 0; // monotonic seconds: not before then is a failed file written anew
    Bytes _record;           // reused, so that a set of an integer allocates nothing here
};

#endif
