#include "platform/parameter_store/wire.h"

#include "platform/parameter_store/byte_order.h"

namespace wire {

namespace {

constexpr std::size_t kSubscriptionHeadSize = 8;

Packet packet(Type type, std::uint32_t request, std::size_t bodySize) {
    Packet bytes;
    bytes.reserve(kHeaderSize + bodySize);
    appendNumber(bytes, kVersion);
    appendNumber(bytes, static_cast<std::uint16_t>(type));
    appendNumber(bytes, request);
    return bytes;
}

void appendText(Packet& bytes, std::string_view text) { bytes.insert(bytes.end(), text.begin(), text.end()); }

void appendValue(Packet& bytes, eParam_t id, const StoreEntry& entry) {
    appendNumber(bytes, id);
    appendNumber(bytes, static_cast<std::uint32_t>(entry.type));
    appendNumber(bytes, entry.sequence);
    if (entry.type == ParameterType::Integer)
        appendNumber(bytes, static_cast<std::uint32_t>(entry.integer));
    else
        appendText(bytes, entry.text);
}

std::string_view textAt(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

bool readValueAt(const std::uint8_t* data, std::size_t size, Value& value) {
    if (size < kValueHeadSize || size > kValueHeadSize + kLongestString) return false;
    value.id = numberAt<std::uint32_t>(data);
    const auto type = numberAt<std::uint32_t>(data + 4);
    value.entry.sequence = numberAt<std::uint64_t>(data + 8);
    value.entry.integer = 0;
    value.entry.text.clear();
    const std::uint8_t* const content = data + kValueHeadSize;
    const std::size_t contentSize = size - kValueHeadSize;
    if (type == static_cast<std::uint32_t>(ParameterType::Integer)) {
        if (contentSize != 4) return false;
        value.entry.type = ParameterType::Integer;
        value.entry.integer = static_cast<int>(numberAt<std::uint32_t>(content));
        return true;
    }
    if (type != static_cast<std::uint32_t>(ParameterType::String)) return false;
    value.entry.type = ParameterType::String;
    value.entry.text = textAt(content, contentSize);
    return true;
}

} // namespace

Packet hello(std::uint32_t request) {
    Packet bytes = packet(Type::Hello, request, 4);
    appendNumber(bytes, kHelloMark);
    return bytes;
}

Packet get(std::uint32_t request, eParam_t id) {
    Packet bytes = packet(Type::Get, request, 4);
    appendNumber(bytes, id);
    return bytes;
}

Packet setInteger(std::uint32_t request, eParam_t id, int value) {
    Packet bytes = packet(Type::SetInteger, request, 8);
    appendNumber(bytes, id);
    appendNumber(bytes, static_cast<std::uint32_t>(value));
    return bytes;
}

Packet setString(std::uint32_t request, eParam_t id, std::string_view value) {
    Packet bytes = packet(Type::SetString, request, 4 + value.size());
    appendNumber(bytes, id);
    appendText(bytes, value);
    return bytes;
}

Packet subscribe(std::uint32_t request, const Subscription& subscription) {
    Packet bytes =
        packet(Type::Subscribe, request, kSubscriptionHeadSize + 4 * subscription.identifiers.size());
    appendNumber(bytes, static_cast<std::uint32_t>(subscription.mode));
    appendNumber(bytes, std::uint32_t{subscription.values});
    for (const eParam_t id : subscription.identifiers) appendNumber(bytes, id);
    return bytes;
}

Packet welcome(std::uint32_t request, std::uint64_t life, bool mayWrite) {
    Packet bytes = packet(Type::Welcome, request, 12);
    appendNumber(bytes, life);
    appendNumber(bytes, std::uint32_t{mayWrite});
    return bytes;
}

Packet status(std::uint32_t request, int status) {
    Packet bytes = packet(Type::Status, request, 4);
    appendNumber(bytes, static_cast<std::uint32_t>(status));
    return bytes;
}

Packet value(std::uint32_t request, eParam_t id, const StoreEntry& entry) {
    Packet bytes = packet(Type::Value, request, kValueHeadSize + 4 + entry.text.size());
    appendValue(bytes, id, entry);
    return bytes;
}

Packet event(eParam_t id, const StoreEntry& entry, timeval when) {
    Packet bytes = packet(Type::Event, 0, kEventTimeSize + kValueHeadSize + 4 + entry.text.size());
    appendNumber(bytes, static_cast<std::uint64_t>(std::int64_t{when.tv_sec}));
    appendNumber(bytes, static_cast<std::uint32_t>(when.tv_usec));
    appendValue(bytes, id, entry);
    return bytes;
}

Packet resync() { return packet(Type::Resync, 0, 0); }

bool readHeader(const std::uint8_t* data, std::size_t size, Header& header) {
    if (size < kHeaderSize || size > kLargestPacket || numberAt<std::uint16_t>(data) != kVersion) return false;
    header.type = static_cast<Type>(numberAt<std::uint16_t>(data + 2));
    header.request = numberAt<std::uint32_t>(data + 4);
    return true;
}

bool readHello(const std::uint8_t* data, std::size_t size) {
    return size == kHeaderSize + 4 && numberAt<std::uint32_t>(data + kHeaderSize) == kHelloMark;
}

bool readGet(const std::uint8_t* data, std::size_t size, eParam_t& id) {
    if (size != kHeaderSize + 4) return false;
    id = numberAt<std::uint32_t>(data + kHeaderSize);
    return true;
}

bool readSetInteger(const std::uint8_t* data, std::size_t size, eParam_t& id, int& value) {
    if (size != kHeaderSize + 8) return false;
    id = numberAt<std::uint32_t>(data + kHeaderSize);
    value = static_cast<int>(numberAt<std::uint32_t>(data + kHeaderSize + 4));
    return true;
}

bool readSetString(const std::uint8_t* data, std::size_t size, eParam_t& id, std::string_view& value) {
    if (size < kHeaderSize + 4) return false;
    id = numberAt<std::uint32_t>(data + kHeaderSize);
    value = textAt(data + kHeaderSize + 4, size - kHeaderSize - 4);
    return true;
}

bool readSubscribe(const std::uint8_t* data, std::size_t size, Subscription& subscription) {
    constexpr std::size_t listAt = kHeaderSize + kSubscriptionHeadSize;
    if (size < listAt || (size - listAt) % 4 != 0) return false;
    const std::size_t count = (size - listAt) / 4;
    const auto mode = numberAt<std::uint32_t>(data + kHeaderSize);
    const auto values = numberAt<std::uint32_t>(data + kHeaderSize + 4);
    if ((mode != static_cast<std::uint32_t>(Mode::Watch) && mode != static_cast<std::uint32_t>(Mode::Listen)) ||
        values > 1 || count > StoreEngine::kMostIdentifiers)
        return false;
    subscription.mode = static_cast<Mode>(mode);
    subscription.values = values == 1;
    subscription.identifiers.clear();
    for (std::size_t each = 0; each < count; ++each)
        subscription.identifiers.push_back(numberAt<std::uint32_t>(data + listAt + 4 * each));
    return true;
}

bool readWelcome(const std::uint8_t* data, std::size_t size, std::uint64_t& life, bool& mayWrite) {
    if (size != kHeaderSize + 12) return false;
    life = numberAt<std::uint64_t>(data + kHeaderSize);
    mayWrite = numberAt<std::uint32_t>(data + kHeaderSize + 8) != 0;
    return true;
}

bool readStatus(const std::uint8_t* data, std::size_t size, int& status) {
    if (size != kHeaderSize + 4) return false;
    status = static_cast<int>(numberAt<std::uint32_t>(data + kHeaderSize));
    return true;
}

bool readValue(const std::uint8_t* data, std::size_t size, Value& value) {
    return readValueAt(data + kHeaderSize, size - kHeaderSize, value);
}

bool readEvent(const std::uint8_t* data, std::size_t size, Value& value) {
    constexpr std::size_t valueAt = kHeaderSize + kEventTimeSize;
    if (size < valueAt) return false;
    const auto seconds = static_cast<std::int64_t>(numberAt<std::uint64_t>(data + kHeaderSize));
    value.when.tv_sec = static_cast<std::time_t>(seconds);
    value.when.tv_usec = static_cast<suseconds_t>(numberAt<std::uint32_t>(data + kHeaderSize + 8));
    return readValueAt(data + valueAt, size - valueAt, value);
}

} // namespace wire
