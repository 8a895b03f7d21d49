// The parameter store's host and the packets that its clients send. An input is a conversation of up to three
// connections at a time; whatever they say, the host's values keep the rules and it goes on to serve others.

#include <array>
#include <chrono>
#include <memory>

#include "fuzzers/store_packets.h"
#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_server.h"

namespace {

using fuzzers::require;
using fuzzers::soon;
using local_socket::Io;

constexpr char kSocket[] = "/tmp/store.sock";
constexpr char kFresh[] = "/tmp/store.sock.new";

// What the host says is what the protocol says.
void checkAnswer(const std::uint8_t* data, std::size_t size) {
    wire::Header header{};
    require(wire::readHeader(data, size, header), "an answer has a header");
    std::uint64_t life = 0;
    bool mayWrite = false;
    int status = 0;
    wire::Value value;
    switch (header.type) {
    case wire::Type::Welcome: require(wire::readWelcome(data, size, life, mayWrite), "a welcome"); break;
    case wire::Type::Status: require(wire::readStatus(data, size, status) && status <= 0, "a status"); break;
    case wire::Type::Value: require(wire::readValue(data, size, value), "a value"); break;
    case wire::Type::Event: require(wire::readEvent(data, size, value), "an event"); break;
    case wire::Type::Resync: require(size == wire::kHeaderSize, "a resync"); break;
    default: require(false, "nothing else is said");
    }
}

class Client {
public:
    Client() : _socket(local_socket::connectBy(kSocket, soon())) { require(_socket.isOpen(), "the host takes newcomers"); }

    // False when the host has closed the connection.
    bool say(const wire::Packet& packet) {
        if (packet.empty()) return true;
        for (;;) {
            switch (local_socket::send(_socket.number(), packet)) {
            case Io::Done: return true;
            case Io::Closed: return false;
            default: break;
            }
            // Full: the host waits until its answers are read.
            if (!listen() || local_socket::waitToSend(_socket.number(), soon()) == Io::Again) return false;
        }
    }

    // Reads what is there; false at the end of the connection.
    bool listen() {
        for (;;) {
            std::size_t size = 0;
            const Io result = local_socket::receive(_socket.number(), _buffer.data(), size);
            if (result != Io::Done) return result != Io::Closed;
            checkAnswer(_buffer.data(), size);
        }
    }

    // Reads on until the host has answered the last request that it took, or has closed the connection.
    void finish() {
        if (!say(wire::get(kLast, 0))) return;
        while (fuzzers::hasSomething(_socket.number())) {
            std::size_t size = 0;
            const Io result = local_socket::receive(_socket.number(), _buffer.data(), size);
            if (result == Io::Closed) return;
            if (result != Io::Done) continue;
            checkAnswer(_buffer.data(), size);
            wire::Header header{};
            wire::readHeader(_buffer.data(), size, header);
            if (header.request == kLast) return;
        }
        require(false, "the host answers, or ends the connection");
    }

private:
    static constexpr std::uint32_t kLast = 0x1a57;
    static inline std::vector<std::uint8_t> _buffer = std::vector<std::uint8_t>(local_socket::kBufferSize);
    local_socket::Descriptor _socket;
};

void checkTable(const StoreEngine& engine) {
    engine.inspect([](const StoreTable& table) {
        std::size_t bytes = 0;
        require(table.size() <= StoreEngine::kMostIdentifiers, "identifiers are bounded");
        for (const auto& [id, entry] : table) {
            bytes += entry.text.size();
            const ParameterDescriptor* const descriptor = findParameter(id);
            require(descriptor == nullptr || descriptor->type == entry.type, "types are kept");
            require(entry.type == ParameterType::Integer || checkValue(id, entry.text) == kConfigOk,
                    "values keep the rules");
        }
        require(bytes <= StoreEngine::kMostTextBytes, "texts are bounded");
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzers::Input input(data, size);
    StoreEngine engine([] { return timeval{1, 2}; });
    StoreServer server(engine);
    require(server.start(kSocket, kFresh), "the host starts");
    {
        std::array<std::unique_ptr<Client>, 3> clients;
        for (int step = 0; step < 200 && !input.isEmpty(); ++step) {
            const std::uint8_t choice = input.byte();
            auto& client = clients[choice % clients.size()];
            if (!client) {
                client = std::make_unique<Client>();
                // Most of them greet.
                if (choice < 0xc0) client->say(wire::hello(1));
            }
            const wire::Packet packet = fuzzers::nextPacket(input, static_cast<std::uint8_t>(choice / clients.size()));
            if (!client->say(packet)) client.reset();
        }
        for (const auto& client : clients)
            if (client) client->finish();
        checkTable(engine);

        // Somebody who keeps to the rules is served all the same.
        Client good;
        require(good.say(wire::hello(1)) && good.say(wire::setInteger(2, kParamNextTakeNumber, 7)), "others are heard");
        good.finish();
        int value = 0;
        require(engine.getInteger(kParamNextTakeNumber, value) == kConfigOk && value == 7, "others can write");
    }
    server.stop();
    return 0;
}
