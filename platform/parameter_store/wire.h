#ifndef MEDIAD_PLATFORM_WIRE_H
#define MEDIAD_PLATFORM_WIRE_H

// What the store's host and its clients say to each other on kStoreSocket (AF_UNIX, SOCK_SEQPACKET).
//
// One message is one packet. Every number is in network byte order, whatever the machine; texts are bytes up to the end
// of the packet, without a terminator. A packet that does not read exactly as the table says ends its connection.
//
//   every packet     offset size
//                         0    2  protocol version, kVersion
//                         2    2  type, below
//                         4    4  request number: the client's choice, repeated in the answer; 0 in what is no answer
//                         8    …  body
//
//   client to host                  body                                             answer
//   Hello        1                  u32 kHelloMark; the first packet, and only once  Welcome
//   Get          2                  u32 identifier                                   Value, or Status when unknown
//   SetInteger   3                  u32 identifier, i32 value                        Status
//   SetString    4                  u32 identifier, text                             Status
//   Subscribe    5                  u32 mode (1 watch, 2 listen), u32 1 for all      the values asked for, each as
//                                   values or 0, then the identifiers to hear of     Value; then Status
//                                   (u32 each; none: all of them)
//
//   host to client
//   Welcome     32                  u64 number of this host's life, u32 1 when the client may write
//   Status      33                  i32 eConfigStatus_t
//   Value       34                  value
//   Event       35                  i64 seconds and u32 microseconds of the change, value
//   Resync      36                  nothing: events were lost since the last Resync
//
//   value                           u32 identifier, u32 type (0 integer, 1 string), u64 sequence, i32 or text
//
// The sequence numbers the sets of one life of the host; 0 is a value that nobody has set in it. A client that lost its
// connection learns from it which sets it has missed.
//
// A listener gets every event, and is cut off when it leaves too many unread. A watcher's queue is bounded: when it is
// full, only the last event of each identifier stays in it, and a Resync behind them.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/parameter_store/store_engine.h"
#include "platform/parameter_store/value_rules.h"

namespace wire {

inline constexpr std::uint16_t kVersion = 1;
inline constexpr std::uint32_t kHelloMark = 0x6d647374; // "mdst"

enum class Type : std::uint16_t {
    Hello = 1,
    Get = 2,
    SetInteger = 3,
    SetString = 4,
    Subscribe = 5,
    Welcome = 32,
    Status = 33,
    Value = 34,
    Event = 35,
    Resync = 36,
};

enum class Mode : std::uint32_t { Nothing = 0, Watch = 1, Listen = 2 };

inline constexpr std::size_t kHeaderSize = 8;
inline constexpr std::size_t kValueHeadSize = 16;
inline constexpr std::size_t kEventTimeSize = 12;
// The largest packet either side sends: an event with the longest string.
inline constexpr std::size_t kLargestPacket = kHeaderSize + kEventTimeSize + kValueHeadSize + kLongestString;
// A subscription may name every identifier that a store can hold.
static_assert(kHeaderSize + 8 + 4 * StoreEngine::kMostIdentifiers <= kLargestPacket);

using Packet = std::vector<std::uint8_t>;

struct Header {
    Type type;
    std::uint32_t request;
};

struct Value {
    eParam_t id = 0;
    StoreEntry entry;
    timeval when{}; // of an Event
};

struct Subscription {
    Mode mode = Mode::Nothing;
    bool values = false;
    std::vector<eParam_t> identifiers;
};

// The packets, ready to send.
Packet hello(std::uint32_t request);
Packet get(std::uint32_t request, eParam_t id);
Packet setInteger(std::uint32_t request, eParam_t id, int value);
Packet setString(std::uint32_t request, eParam_t id, std::string_view value);
Packet subscribe(std::uint32_t request, const Subscription& subscription);
Packet welcome(std::uint32_t request, std::uint64_t life, bool mayWrite);
Packet status(std::uint32_t request, int status);
Packet value(std::uint32_t request, eParam_t id, const StoreEntry& entry);
Packet event(eParam_t id, const StoreEntry& entry, timeval when);
Packet resync();

// Readers of what the other side sent: false when it is not exactly what the table says. `size` counts from the
// packet's first byte, and each reader of a body expects the packet whose header has its type.
bool readHeader(const std::uint8_t* data, std::size_t size, Header& header);
bool readHello(const std::uint8_t* data, std::size_t size);
bool readGet(const std::uint8_t* data, std::size_t size, eParam_t& id);
bool readSetInteger(const std::uint8_t* data, std::size_t size, eParam_t& id, int& value);
bool readSetString(const std::uint8_t* data, std::size_t size, eParam_t& id, std::string_view& value);
bool readSubscribe(const std::uint8_t* data, std::size_t size, Subscription& subscription);
bool readWelcome(const std::uint8_t* data, std::size_t size, std::uint64_t& life, bool& mayWrite);
bool readStatus(const std::uint8_t* data, std::size_t size, int& status);
bool readValue(const std::uint8_t* data, std::size_t size, Value& value);
bool readEvent(const std::uint8_t* data, std::size_t size, Value& value);

} // namespace wire

#endif
