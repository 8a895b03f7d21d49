// The part of SlotListener that listens to the kernel.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "classes/die/die.h"
#include "classes/diagnostics/diagnostics.h"
#include "printable.h"
#include "slots/slot_listener.h"

namespace {

constexpr std::uint32_t kAllGroups = 0xffffffff;
constexpr int kLinesOfAnEvent = 3;

// How many datagrams of a storm are received before the drop count is asked for. Asking for each costs as much as
// receiving it, and a listener that falls behind loses more of them.
constexpr unsigned int kMostUnasked = 64;

// Not the library's: that one depends on the locale and on the sign of char.
bool isDigit(char each) { return each >= '0' && each <= '9'; }

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

void capture(char* line, std::string_view text) {
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(SlotListener::kLineSize) - 1);
    std::memcpy(line, text.data(), length);
    line[length] = '\0';
}

// Device names end up in shell lines: nothing else may pass, whoever sent the datagram.
bool isDeviceName(std::string_view name) {
    return !name.empty() && std::ranges::all_of(name, [](char each) {
        return (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') || isDigit(each) || each == '-';
    });
}

} // namespace

int SlotListener::listen() {
    // The socket is bound here and not on the thread: after the return nothing may be missed.
    _socket = _os.openUevents();
    if (_socket == -1) die("Not root\n");
    if (_os.bindUevents(_socket, kAllGroups) == -1) die("Bind failed\n");

    int error = 0;
    _wake = _os.openWake();
    if (_wake == -1) {
        error = errno;
    } else {
        _os.initSemaphore(&_threadGone, 0);
        pthread_t thread;
        error = _os.startThread(OperatingSystem::ThreadKind::DetachedScheduled, &SlotListener::loop, this, thread);
        _threadStarted = error == 0;
        if (!_threadStarted) sem_destroy(&_threadGone);
    }
    if (error != 0) report(std::string("listen: ") + std::strerror(error));
    return error;
}

void* SlotListener::loop(void* listener) {
    SlotListener* const self = static_cast<SlotListener*>(listener);
    OperatingSystem& os = self->_os;
    while (self->listenStep()) {
    }
    os.postSemaphore(&self->_threadGone); // the listener may be gone from here on
    return nullptr;
}

bool SlotListener::listenStep() {
    const int ready = waitForUevent();
    if (ready == -1) die("poll\n");
    if (ready == 0) return false;

    char buffer[kLineSize];
    const ssize_t received = _os.receiveUevent(_socket, buffer, sizeof buffer);
    if (received == -1) die("recv\n");
    // A datagram that fills the buffer was cut or ends in it; a shorter one need not end in a NUL either.
    buffer[std::min(received, static_cast<ssize_t>(kLineSize) - 1)] = '\0';
    parseKeventBuffer(_action, _devname, _physdevpath, buffer, static_cast<int>(received));
    ++_unasked;
    return true;
}

// As pollUevents. While one datagram follows another, nothing is waited for, and the wake is looked at no more often than
// the drop count is asked for.
int SlotListener::waitForUevent() {
    if (_unasked > 0) {
        const int ready = _unasked < kMostUnasked ? _os.lookForUevent(_socket) : 0;
        if (ready != 0) return ready;
        // Datagrams are dropped while the queue is full, so the count has grown by the time that what is queued is read.
        _unasked = 0;
        const std::uint32_t dropped = _os.droppedUevents(_socket);
        if (dropped != _dropped) {
            _dropped = dropped;
            _driverScanRequested = true;
        }
    }
    return _os.pollUevents(_socket, _wake);
}

int SlotListener::parseKeventBuffer(char* action, char* devname, char* physdevpath, char* buffer, int length) {
    int captured = 0;
    int result = 0;
    for (int offset = 0; offset < length;) {
        const std::size_t left = static_cast<std::size_t>(length - offset);
        const std::string_view line(buffer + offset, strnlen(buffer + offset, left));
        offset += static_cast<int>(line.size()) + 1;

        if (contains(line, "ACTION")) {
            capture(action, line);
            ++captured;
        }
        // A name that ends in a digit is a partition's; only whole disks count.
        if (contains(line, "DEVNAME") && !isDigit(line.back())) {
            capture(devname, line);
            ++captured;
        }
        if (contains(line, "PHYSDEVPATH")) {
            if (line.front() != 'D') {
                capture(physdevpath, line);
                ++captured;
            } else {
                // The words run as they always have; there is no daemon name in front of this line.
                reportPlain("parseKeventBuffer ERROR: strstr() claims PHYSDEVPATH matches " + printable(std::string(line)) +
                            " It should be impossible to be here!\n");
            }
        }
        if (captured < kLinesOfAnEvent) continue;
        handleEvent(action, devname, physdevpath);
        result = captured;
        captured = 0;
    }
    return result;
}

void SlotListener::handleEvent(const char* action, const char* devname, const char* physdevpath) {
    const auto found = std::ranges::find_if(_slots, [physdevpath](const auto& each) {
        return contains(physdevpath, each.second.getAddress());
    });
    if (found == _slots.end()) return;
    Slot& slot = found->second;

    if (contains(action, "ACTION=add")) {
        // The name ends up in command lines.
        const char* const equals = std::strchr(devname, '=');
        if (equals != nullptr && isDeviceName(equals + 1)) slot.announce(equals + 1);
    } else if (contains(action, "ACTION=remove")) {
        slot.retract();
    }
}
