#include "tools/medium_in_use.h"

#include "parameters.h"
#include "tools/recorder_status.h"
#include "tools/safe_text.h"

namespace mediactl {

namespace {
constexpr std::int32_t kFirewireOn = 2; // of kParamFirewireMode
}

std::unique_ptr<MediumInUse> MediumInUse::look() {
    std::unique_ptr<MediumInUse> medium(new MediumInUse);
    // Both are written when a medium comes or goes, and never while one stays in use.
    medium->_watcher = StoreWatcher::connect({kParamSelectedSlot, kParamVolumeName});
    if (!medium->_watcher) return nullptr;
    medium->_store = StoreConnection::connect(StoreConnection::Access::Read);
    if (!medium->_store) return nullptr;
    medium->_slot = medium->_store->integer(kParamSelectedSlot);
    ParameterValue text;
    if (medium->_store->read(kParamVolumeName, text) == kConfigUnreachable) return nullptr;
    medium->_volume = text.text;
    if (medium->_store->read(kParamStoragePath, text) == kConfigUnreachable) return nullptr;
    medium->_storagePath = text.text;
    return medium;
}

bool MediumInUse::hasChanged() {
    ConfigEvent event;
    StoreWatcher::Result result;
    do result = _watcher->next(event, 0);
    while (result == StoreWatcher::Result::Interrupted);
    return result != StoreWatcher::Result::Timeout;
}

Outcome MediumInUse::refusal(const std::string& consequence) {
    ParameterValue transport;
    ParameterValue firewire;
    if (_store->read(kParamTransportState, transport) == kConfigUnreachable ||
        _store->read(kParamFirewireMode, firewire) == kConfigUnreachable)
        return failNobodyServes();
    const auto refuse = [&consequence](const std::string& reason) {
        return fail(Outcome::Failed, reason + "; " + consequence);
    };
    if (_slot == 0) return refuse("no slot is selected");
    if (!isIdle(transport.integer))
        return refuse("the transport is not idle (state " + std::to_string(transport.integer) + ")");
    if (firewire.integer == kFirewireOn) return refuse("FireWire disk access is on");
    if (hasChanged()) return refuse("another medium may be in use by now");
    return Outcome::Done;
}

std::string MediumInUse::slot() const { return slotName(_slot); }

std::string MediumInUse::description() const {
    const std::string named = "volume \"" + printable(_volume) + "\"";
    return (_volume.empty() ? "the medium without a volume name" : named) + " in slot " + slot();
}

} // namespace mediactl
