#include "config.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>

#include "parameters.h"
#include "platform/parameter_store/local_socket.h"
#include "platform/parameter_store/store_client.h"
#include "platform/parameter_store/store_host.h"
#include "platform/parameter_store/store_objects.h"
#include "platform/parameter_store/store_paths.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr char kOnlyTransport[] = "udp";
// For a host that is just starting, or ending, to answer or to leave.
constexpr std::chrono::seconds kHostDeadline{5};
constexpr std::chrono::milliseconds kHostPause{20};

std::atomic<bool> descriptorsCreated{false};

// What this process has of the store, shared by all the objects it was given: the host, the connection to one, or
// nothing.
class ProcessStore : public ConfigFactoryImpl {
public:
    static ProcessStore& instance() {
        // Never destroyed: its threads may still run when main has returned.
        static ProcessStore* const store = new ProcessStore;
        return *store;
    }

    Config* openConfig(bool readOnly, bool mayHost) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!_host && !_client && !open(mayHost)) return nullptr;
        if (_host) return handOut(new StoreConfig<StoreEngine>(_host->engine(), readOnly));
        return handOut(new StoreConfig<StoreClient>(*_client, readOnly));
    }

    ConfigEventChannel* createEventChannel(const std::string& locator) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (locator != kConfigEventLocator) return nullptr;
        if (_host) return handOut(new StoreChannel<StoreEngine>(_host->engine()));
        // Asked, not remembered: a host that has just gone may not have been missed yet.
        int ignored = 0;
        if (!_client || _client->getInteger(kParamMediaDaemonStatus, ignored) == kConfigUnreachable) return nullptr;
        return handOut(new StoreChannel<StoreClient>(*_client));
    }

    void release(ConfigObject* object) override {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_objects.erase(object) == 0) return;
            ++_leaving;
        }
        // Without the lock: it may wait for a callback, which may be about to ask for an object itself.
        delete object;
        const std::lock_guard<std::mutex> lock(_mutex);
        --_leaving;
        if (!_objects.empty() || _leaving > 0) return;
        // A callback that gives back the last object stands on the thread that would have to end here. What is left is
        // used by the next object, or ends with the process.
        if ((_host && _host->engine().onDeliveryThread()) || (_client && _client->mirror().onDeliveryThread())) return;
        _host.reset();
        _client.reset();
    }

private:
    template <typename Object>
    Object* handOut(Object* object) {
        _objects.insert(object);
        return object;
    }

    bool open(bool mayHost) {
        const SteadyClock::time_point deadline = SteadyClock::now() + kHostDeadline;
        for (;;) {
            auto client = std::make_unique<StoreClient>(mayHost);
            if (client->start(deadline)) {
                _client = std::move(client);
                return true;
            }
            // Whoever only attaches is a tool with words of its own for this.
            if (!mayHost) return false;
            auto host = std::make_unique<StoreHost>();
            std::string why;
            switch (host->start(why)) {
            case StoreHost::Outcome::Hosting:
                _host = std::move(host);
                return true;
            case StoreHost::Outcome::Failed:
                sayLine("paramstore: " + why);
                return false;
            case StoreHost::Outcome::Occupied:
                break;
            }
            if (SteadyClock::now() >= deadline) {
                sayLine(std::string("paramstore: the process that holds ") + kStoreLock + " does not serve the store");
                return false;
            }
            std::this_thread::sleep_for(kHostPause);
        }
    }

    // Guards everything below. Neither the engine nor the client is ever called back under a lock of theirs.
    std::mutex _mutex;
    std::unordered_set<ConfigObject*> _objects; // what is out: a program may end without giving it back
    std::size_t _leaving = 0;                   // what is just being deleted
    std::unique_ptr<StoreHost> _host;
    std::unique_ptr<StoreClient> _client;
};

} // namespace

ConfigFactoryImpl& ConfigFactoryImpl::GetInstance() { return ProcessStore::instance(); }

void CreateDescriptors() { descriptorsCreated = true; }

Config* GetMappingConfig(const std::string& transport, bool readOnly, bool host) {
    if (!descriptorsCreated || transport != kOnlyTransport) return nullptr;
    return ProcessStore::instance().openConfig(readOnly, host);
}
