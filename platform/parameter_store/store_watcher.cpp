#include "store_watcher.h"

#include <sys/socket.h>

#include <chrono>
#include <utility>

#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_paths.h"
#include "platform/parameter_store/wire.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using local_socket::Io;

constexpr std::chrono::seconds kAnswerDeadline{5};

class SocketWatcher : public StoreWatcher {
public:
    explicit SocketWatcher(local_socket::Descriptor socket) : _socket(std::move(socket)), _buffer(local_socket::kBufferSize) {}

    bool begin(const std::vector<eParam_t>& identifiers, local_socket::Deadline deadline) {
        wire::Subscription wanted;
        wanted.mode = wire::Mode::Watch;
        wanted.identifiers = identifiers;
        if (identifiers.size() > StoreEngine::kMostIdentifiers) wanted.identifiers.clear();
        if (local_socket::send(_socket.number(), wire::hello(1)) != Io::Done ||
            local_socket::send(_socket.number(), wire::subscribe(2, wanted)) != Io::Done)
            return false;
        for (;;) {
            std::size_t size = 0;
            const Io result = local_socket::receive(_socket.number(), _buffer.data(), size);
            if (result == Io::Closed) return false;
            if (result == Io::Done) {
                wire::Header header{};
                if (!wire::readHeader(_buffer.data(), size, header)) return false;
                if (header.type == wire::Type::Status && header.request == 2) return true;
            } else if (local_socket::waitToReceive(_socket.number(), deadline) == Io::Again) {
                return false;
            }
        }
    }

    Result next(ConfigEvent& event, int milliseconds) override {
        const local_socket::Deadline deadline = SteadyClock::now() + std::chrono::milliseconds(milliseconds);
        for (;;) {
            std::size_t size = 0;
            switch (local_socket::receive(_socket.number(), _buffer.data(), size)) {
            case Io::Done:
                return take(size, event);
            case Io::Closed:
                return Result::Lost;
            case Io::Interrupted:
                return Result::Interrupted;
            case Io::Again:
                break;
            }
            const Io ready = local_socket::waitToReceive(
                _socket.number(), milliseconds < 0 ? SteadyClock::now() + std::chrono::hours(1) : deadline);
            if (ready == Io::Interrupted) return Result::Interrupted;
            if (ready == Io::Closed) return Result::Lost;
            if (ready == Io::Again && milliseconds >= 0) return Result::Timeout;
        }
    }

private:
    Result take(std::size_t size, ConfigEvent& event) {
        wire::Header header{};
        wire::Value value;
        if (!wire::readHeader(_buffer.data(), size, header)) return Result::Lost;
        if (header.type == wire::Type::Resync) return Result::Resync;
        if (header.type != wire::Type::Event || !wire::readEvent(_buffer.data(), size, value)) return Result::Lost;
        event.id = value.id;
        event.isInteger = value.entry.type == ParameterType::Integer;
        event.integer = value.entry.integer;
        event.text = std::move(value.entry.text);
        event.when = value.when;
        return Result::Event;
    }

    local_socket::Descriptor _socket;
    std::vector<std::uint8_t> _buffer;
};

} // namespace

std::unique_ptr<StoreWatcher> StoreWatcher::connect(const std::vector<eParam_t>& identifiers) {
    const local_socket::Deadline deadline = SteadyClock::now() + kAnswerDeadline;
    local_socket::Descriptor socket = local_socket::connectBy(kStoreSocket, deadline);
    if (!socket.isOpen()) return nullptr;
    auto watcher = std::make_unique<SocketWatcher>(std::move(socket));
    if (!watcher->begin(identifiers, deadline)) return nullptr;
    return watcher;
}
