// The packets between the store's host and its clients, byte for byte, and what does not read as one.

#include "platform/parameter_store/wire.h"

#include <gmock/gmock.h>

#include <random>

namespace {

using testing::ElementsAre;
using wire::Packet;

StoreEntry integerEntry(int value, std::uint64_t sequence) {
    StoreEntry entry;
    entry.integer = value;
    entry.sequence = sequence;
    return entry;
}

StoreEntry textEntry(const std::string& value, std::uint64_t sequence) {
    StoreEntry entry;
    entry.type = ParameterType::String;
    entry.text = value;
    entry.sequence = sequence;
    return entry;
}

// Runs every reader over the bytes; what matters is that none of them goes astray.
void readAll(const Packet& packet) {
    wire::Header header{};
    if (!wire::readHeader(packet.data(), packet.size(), header)) return;
    eParam_t id = 0;
    int number = 0;
    std::string_view text;
    wire::Subscription subscription;
    std::uint64_t life = 0;
    bool flag = false;
    wire::Value value;
    wire::readHello(packet.data(), packet.size());
    wire::readGet(packet.data(), packet.size(), id);
    wire::readSetInteger(packet.data(), packet.size(), id, number);
    if (wire::readSetString(packet.data(), packet.size(), id, text)) {
        EXPECT_LE(text.size(), packet.size());
    }
    if (wire::readSubscribe(packet.data(), packet.size(), subscription)) {
        EXPECT_LE(subscription.identifiers.size(), StoreEngine::kMostIdentifiers);
    }
    wire::readWelcome(packet.data(), packet.size(), life, flag);
    wire::readStatus(packet.data(), packet.size(), number);
    if (wire::readValue(packet.data(), packet.size(), value)) {
        EXPECT_LE(value.entry.text.size(), kLongestString);
    }
    if (wire::readEvent(packet.data(), packet.size(), value)) {
        EXPECT_LE(value.entry.text.size(), kLongestString);
    }
}

} // namespace

TEST(Wire, requestsAreInNetworkByteOrder) {
    EXPECT_THAT(wire::hello(1), ElementsAre(0, 1, 0, 1, 0, 0, 0, 1, 'm', 'd', 's', 't'));
    EXPECT_THAT(wire::get(0x01020304, 0x7d07000a), ElementsAre(0, 1, 0, 2, 1, 2, 3, 4, 0x7d, 0x07, 0x00, 0x0a));
    EXPECT_THAT(wire::setInteger(2, 0x7d07000a, -2),
                ElementsAre(0, 1, 0, 3, 0, 0, 0, 2, 0x7d, 0x07, 0x00, 0x0a, 0xff, 0xff, 0xff, 0xfe));
    EXPECT_THAT(wire::setString(3, 0x7b04000a, "ab"),
                ElementsAre(0, 1, 0, 4, 0, 0, 0, 3, 0x7b, 0x04, 0x00, 0x0a, 'a', 'b'));
    EXPECT_THAT(wire::subscribe(4, {wire::Mode::Watch, true, {0x7e000000}}),
                ElementsAre(0, 1, 0, 5, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 1, 0x7e, 0, 0, 0));
}

TEST(Wire, answersAreInNetworkByteOrder) {
    EXPECT_THAT(wire::welcome(1, 0x0102030405060708, true),
                ElementsAre(0, 1, 0, 32, 0, 0, 0, 1, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 1));
    EXPECT_THAT(wire::status(2, kConfigRefused), ElementsAre(0, 1, 0, 33, 0, 0, 0, 2, 0xff, 0xff, 0xff, 0xff));
    EXPECT_THAT(wire::value(3, 0x7e000000, integerEntry(7, 0x0102)),
                ElementsAre(0, 1, 0, 34, 0, 0, 0, 3, 0x7e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 0, 7));
    EXPECT_THAT(wire::event(0x7b04000a, textEntry("c", 1), {0x0a0b0c0d, 0x0102}),
                ElementsAre(0, 1, 0, 35, 0, 0, 0, 0, 0, 0, 0, 0, 0x0a, 0x0b, 0x0c, 0x0d, 0, 0, 1, 2, 0x7b, 0x04, 0,
                            0x0a, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 'c'));
    EXPECT_THAT(wire::resync(), ElementsAre(0, 1, 0, 36, 0, 0, 0, 0));
}

TEST(Wire, everyPacketReadsBack) {
    wire::Header header{};
    Packet packet = wire::event(5, textEntry(std::string(kLongestString, 'x'), ~0ULL), {-1, 999999});
    EXPECT_EQ(packet.size(), wire::kLargestPacket);
    ASSERT_TRUE(wire::readHeader(packet.data(), packet.size(), header));
    EXPECT_EQ(header.type, wire::Type::Event);
    wire::Value value;
    ASSERT_TRUE(wire::readEvent(packet.data(), packet.size(), value));
    EXPECT_EQ(value.id, 5U);
    EXPECT_EQ(value.entry.sequence, ~0ULL);
    EXPECT_EQ(value.entry.text.size(), kLongestString);
    EXPECT_EQ(value.when.tv_sec, -1);
    EXPECT_EQ(value.when.tv_usec, 999999);

    packet = wire::value(9, 6, integerEntry(-2147483647 - 1, 3));
    ASSERT_TRUE(wire::readHeader(packet.data(), packet.size(), header));
    EXPECT_EQ(header.request, 9U);
    ASSERT_TRUE(wire::readValue(packet.data(), packet.size(), value));
    EXPECT_EQ(value.entry.integer, -2147483647 - 1);

    wire::Subscription all{wire::Mode::Listen, false, std::vector<eParam_t>(StoreEngine::kMostIdentifiers, 8)};
    packet = wire::subscribe(1, all);
    wire::Subscription read;
    ASSERT_TRUE(wire::readHeader(packet.data(), packet.size(), header));
    ASSERT_TRUE(wire::readSubscribe(packet.data(), packet.size(), read));
    EXPECT_EQ(read.mode, wire::Mode::Listen);
    EXPECT_FALSE(read.values);
    EXPECT_EQ(read.identifiers, all.identifiers);
}

TEST(Wire, whatIsTooShortTooLongOrOffIsRefused) {
    wire::Header header{};
    eParam_t id = 0;
    int number = 0;
    Packet packet = wire::get(1, 2);
    EXPECT_FALSE(wire::readHeader(packet.data(), 7, header));
    EXPECT_FALSE(wire::readHeader(packet.data(), wire::kLargestPacket + 1, header));
    EXPECT_FALSE(wire::readGet(packet.data(), packet.size() - 1, id));
    EXPECT_FALSE(wire::readSetInteger(packet.data(), packet.size(), id, number));
    packet[1] = 2;
    EXPECT_FALSE(wire::readHeader(packet.data(), packet.size(), header)) << "another version";

    packet = wire::hello(1);
    packet.back() = 'x';
    EXPECT_FALSE(wire::readHello(packet.data(), packet.size()));

    wire::Subscription subscription;
    packet = wire::subscribe(1, {wire::Mode::Watch, false, {1, 2}});
    EXPECT_FALSE(wire::readSubscribe(packet.data(), packet.size() - 1, subscription));
    packet[wire::kHeaderSize + 3] = 3;
    EXPECT_FALSE(wire::readSubscribe(packet.data(), packet.size(), subscription)) << "no such mode";

    wire::Value value;
    packet = wire::value(1, 2, integerEntry(3, 4));
    EXPECT_FALSE(wire::readValue(packet.data(), packet.size() - 1, value));
    packet[wire::kHeaderSize + 7] = 2;
    EXPECT_FALSE(wire::readValue(packet.data(), packet.size(), value)) << "no such type";
}

TEST(Wire, readersStandAnyBytes) {
    std::mt19937 random(20261121);
    std::vector<Packet> seeds = {wire::hello(1),
                                 wire::get(1, 2),
                                 wire::setInteger(1, 2, 3),
                                 wire::setString(1, 2, "text"),
                                 wire::subscribe(1, {wire::Mode::Watch, true, {1, 2, 3}}),
                                 wire::welcome(1, 2, true),
                                 wire::status(1, 2),
                                 wire::value(1, 2, textEntry("text", 3)),
                                 wire::event(2, integerEntry(3, 4), {5, 6}),
                                 wire::resync()};
    for (int round = 0; round < 20000; ++round) {
        Packet packet = seeds[random() % seeds.size()];
        for (unsigned change = random() % 4; change > 0; --change)
            packet[random() % packet.size()] = static_cast<std::uint8_t>(random());
        packet.resize(random() % (packet.size() + 8));
        packet.shrink_to_fit(); // so that the address sanitizer sees the end
        readAll(packet);
    }
}
