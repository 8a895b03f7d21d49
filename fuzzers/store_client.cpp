// A client of the parameter store and a host that says anything: as the connection that a process has of the store, and
// as the watcher of a tool. The first byte of an input chooses which; then come the host's packets.

#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "fuzzers/store_packets.h"
#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_client.h"
#include "platform/parameter_store/store_paths.h"
#include "store_watcher.h"

namespace {

using fuzzers::require;
using fuzzers::soon;

// Says what it was told to say whatever it hears, and goes when the client has gone.
class Host {
public:
    Host() {
        ::mkdir(kStoreDirectory, 0755);
        _listening = local_socket::listenAt(kStoreSocket, kStoreSocketFresh);
        require(_listening.isOpen(), "the socket is there");
    }

    void serve(const std::vector<wire::Packet>& packets) {
        if (!fuzzers::hasSomething(_listening.number())) return;
        const local_socket::Descriptor connection(::accept(_listening.number(), nullptr, nullptr));
        for (const wire::Packet& packet : packets) {
            local_socket::Io result;
            while ((result = local_socket::send(connection.number(), packet)) == local_socket::Io::Again)
                if (local_socket::waitToSend(connection.number(), soon()) == local_socket::Io::Again) return;
            if (result == local_socket::Io::Closed) return;
        }
        // What the client still asks is in vain. It is read all the same: who closes with something unread takes back what
        // the other side has not read yet.
        ::shutdown(connection.number(), SHUT_WR);
        std::size_t size = 0;
        while (fuzzers::hasSomething(connection.number()))
            if (local_socket::receive(connection.number(), _buffer.data(), size) == local_socket::Io::Closed) return;
        require(false, "a client that was left goes");
    }

private:
    local_socket::Descriptor _listening;
    std::vector<std::uint8_t> _buffer = std::vector<std::uint8_t>(local_socket::kBufferSize);
};

struct Listener : ConfigEvents {
    void ParamChanged(eParam_t, unsigned int, timeval) override { ++heard; }
    void ParamChanged(eParam_t, std::string, timeval) override { ++heard; }
    bool DataChanged(eParam_t, std::string&, timeval) override { return true; }
    void ParamChanged(ConfigEvent) override {}
    std::size_t heard = 0;
};

void beClient() {
    Listener listener;
    StoreClient client(false);
    if (!client.start(soon())) return;
    client.addListener(&listener, &listener);
    int integer = 0;
    std::string text;
    for (const eParam_t id : {kParamMediaDaemonStatus, kParamVolumeName, kParamClipsToDelete}) {
        client.getInteger(id, integer);
        client.getString(id, text);
        require(text.size() <= kLongestString, "texts are bounded");
    }
    client.setInteger(kParamMediaDaemonStatus, 3);
    client.setString(kParamClipsToDelete, "a|b");
    // Until it has heard everything, and that the host is gone.
    while (client.getInteger(kParamMediaDaemonStatus, integer) != kConfigUnreachable) {}
    client.mirror().inspect([](const StoreTable& table) {
        std::size_t bytes = 0;
        require(table.size() <= StoreEngine::kMostIdentifiers, "identifiers are bounded");
        for (const auto& [id, entry] : table) {
            bytes += entry.text.size();
            require(entry.type == ParameterType::Integer || checkValue(id, entry.text) == kConfigOk,
                    "values keep the rules");
            const ParameterDescriptor* const descriptor = findParameter(id);
            require(descriptor == nullptr || descriptor->type == entry.type, "types are kept");
        }
        require(bytes <= StoreEngine::kMostTextBytes, "texts are bounded");
    });
    client.removeListeners(&listener);
}

void beWatcher() {
    const auto watcher = StoreWatcher::connect({kParamMediaDaemonStatus});
    if (!watcher) return;
    ConfigEvent event;
    for (StoreWatcher::Result result; (result = watcher->next(event, 15000)) != StoreWatcher::Result::Lost;) {
        if (result == StoreWatcher::Result::Interrupted) continue;
        require(result == StoreWatcher::Result::Event || result == StoreWatcher::Result::Resync, "it hears or is cut off");
        require(event.text.size() <= kLongestString, "texts are bounded");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzers::Input input(data, size);
    const std::uint8_t choice = input.byte();
    std::vector<wire::Packet> packets;
    // Most hosts begin as they should.
    if (choice < 0xc0) {
        packets.push_back(wire::welcome(0xfffffffe, 7, true));
        if ((choice & 2) != 0) packets.push_back(wire::status((choice & 1) != 0 ? 2 : 0xffffffff, kConfigOk));
    }
    while (!input.isEmpty() && packets.size() < 200) {
        const std::uint8_t kind = input.byte();
        packets.push_back(fuzzers::nextPacket(input, kind));
        if (packets.back().empty()) packets.pop_back();
    }

    Host host;
    std::thread serving([&] { host.serve(packets); });
    if ((choice & 1) != 0)
        beWatcher();
    else
        beClient();
    serving.join();
    return 0;
}
