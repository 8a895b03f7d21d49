// Uevent datagrams: from the kernel, or from whoever may send on its socket. Two bytes 0xff stand between the datagrams
// of one input, because the line buffers keep what an earlier datagram left.

#include <memory>

#include "fuzzers/fuzzer.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

// The last slot, by its name, is met by every path that the others do not meet.
constexpr char kBoard[] = R"(
board_id = 0x0a3c
mediaCapabilities = {}
specification = { slots = { { name = "S1", address = "/ata1/" }, { name = "S2", address = "/ata2/" }, { name = "X" } } }
)";

bool isDeviceName(const std::string& name) {
    for (const char c : name)
        if ((c < 'a' || c > 'z') && (c < 'A' || c > 'Z') && (c < '0' || c > '9') && c != '-') return false;
    return true;
}

void check(const Slot& slot) {
    const SlotAnnouncement announced = slot.readAnnouncement();
    fuzzers::require(isDeviceName(announced.devname), "no device name has a meaning to a shell");
    fuzzers::require(announced.recognized == !announced.devname.empty(), "what is recognised has a name");
    fuzzers::require(announced.devname.size() < SlotListener::kLineSize, "a name fits into a line");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    fakes::World world;
    SlotListener listener(&world.config, &world.card, world.os);
    fuzzers::require(listener.parseSpecification("0x00000a3c", kBoard, &world.shell) == 0, "the board is good");

    const std::string all(reinterpret_cast<const char*>(data), size);
    for (std::size_t at = 0; at <= all.size();) {
        const std::size_t end = std::min(all.find("\xff\xff", at), all.size());
        world.os.sendUevent(all.substr(at, end - at));
        at = end + 2;
        fuzzers::require(listener.listenStep(), "the thread goes on");
        check(listener.getSlot(eStorageSlotS1));
        check(listener.getSlot(eStorageSlotS2));
        check(listener.getSlot(eStorageSlotUnknown));
    }
    fuzzers::require(fuzzers::isHarmless(errors.take()), "what is said is fit for a terminal");
    return 0;
}
