#include "tools/live_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>

namespace mediactl {

LiveView::LiveView(bool json) : _json(json), _inPlace(!json && isatty(STDOUT_FILENO)) {}

std::optional<std::size_t> LiveView::lines() const {
    winsize size{};
    if (!_inPlace || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row == 0) return std::nullopt;
    return size.ws_row;
}

void LiveView::show(const std::string& text) {
    if (!_inPlace) {
        std::cout << (_shown && !_json ? "\n" : "") << text << std::flush;
        _shown = true;
        return;
    }
    // Drawn over the last picture instead of clearing the screen first, which would flicker. Lines are cut at the edge:
    // one that went on below would push the picture out of its place.
    std::string frame = _shown ? "\033[?7l\033[H" : "\033[?7l\033[2J\033[H";
    for (const char c : text) {
        if (c == '\n') frame += "\033[K"; // what is left of a longer line
        frame += c;
    }
    std::cout << frame << "\033[J\033[?7h" << std::flush; // what is left of a longer picture
    _shown = true;
}

bool LiveView::forget() {
    if (_inPlace) _shown = false;
    return _inPlace;
}

} // namespace mediactl
