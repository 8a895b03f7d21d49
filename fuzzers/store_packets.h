#ifndef MEDIAD_FUZZERS_STORE_PACKETS_H
#define MEDIAD_FUZZERS_STORE_PACKETS_H

// Packets of the store's protocol as an input wants them: most begin as the protocol says, some are any bytes.

#include <array>
#include <chrono>

#include "fuzzers/fuzzer.h"
#include "platform/parameter_store/byte_order.h"
#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/wire.h"

namespace fuzzers {

inline local_socket::Deadline soon() { return std::chrono::steady_clock::now() + std::chrono::seconds(15); }

// Whether there is something to receive before long. libFuzzer's own timer interrupts waits.
inline bool hasSomething(int socket) {
    const local_socket::Deadline deadline = soon();
    local_socket::Io result;
    while ((result = local_socket::waitToReceive(socket, deadline)) == local_socket::Io::Interrupted) {}
    return result == local_socket::Io::Done;
}

inline wire::Packet packetOf(const std::string& bytes) { return {bytes.begin(), bytes.end()}; }

// The packet that `kind` and the next bytes of the input say. Numbers of requests are small, so that answers meet them;
// the two of the client's own are the largest there are.
inline wire::Packet nextPacket(Input& input, std::uint8_t kind) {
    using wire::Type;
    constexpr std::array kTypes = {Type::Hello,  Type::Get,   Type::SetInteger, Type::SetString, Type::Subscribe,
                                   Type::Welcome, Type::Status, Type::Value,      Type::Event,     Type::Resync};
    const std::size_t type = kind % (kTypes.size() + 1);
    if (type == kTypes.size()) return packetOf(input.longText());
    wire::Packet packet;
    appendNumber(packet, wire::kVersion);
    appendNumber(packet, static_cast<std::uint16_t>(kTypes[type]));
    const std::uint8_t request = input.byte();
    appendNumber(packet, request < 0xf0 ? std::uint32_t{request} : 0xffffff00U | request);
    const std::string body = input.longText();
    packet.insert(packet.end(), body.begin(), body.end());
    return packet;
}

} // namespace fuzzers

#endif
