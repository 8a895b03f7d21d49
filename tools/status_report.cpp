#include "tools/status_report.h"

#include <unistd.h>

#include <iostream>
#include <memory>
#include <optional>

#include "tools/recorder_status.h"
#include "tools/store_watch.h"

namespace mediactl {

namespace {

// Registers change without an event, so they are looked at as often as mediad itself looks at them.
constexpr int kLookMilliseconds = 250;

Board boardOrComplaint() {
    Board board = readBoard();
    if (!board.problem.empty()) say(board.problem);
    return board;
}

// Draws over the last picture instead of clearing the screen first, which would flicker.
class Terminal {
public:
    void draw(const std::string& text) {
        std::string frame = _drawn ? "\033[H" : "\033[2J\033[H";
        for (const char c : text) {
            if (c == '\n') frame += "\033[K"; // what is left of a longer line
            frame += c;
        }
        std::cout << frame << "\033[J" << std::flush; // what is left of a longer picture
        _drawn = true;
    }

    // Something else was written meanwhile, a complaint for instance.
    void forget() { _drawn = false; }

private:
    bool _drawn = false;
};

// What is waiting already, so that a burst of changes makes one picture; bounded, or one that does not end makes none.
void drain(StoreWatch& watch, StoreWatch::Result first) {
    ConfigEvent event;
    for (int i = 0; i < 1000 && (first == StoreWatch::Result::Event || first == StoreWatch::Result::Resync); ++i)
        first = watch.next(event, 0);
}

} // namespace

Outcome showStatus(bool json) {
    const std::unique_ptr<StoreConnection> store = StoreConnection::connect(StoreConnection::Access::Read);
    if (!store) return failNobodyServes();
    RecorderStatus status;
    if (!readStatus(*store, boardOrComplaint(), status)) return failNobodyServes();
    std::cout << (json ? statusJson(status, true) + "\n" : statusText(status));
    return Outcome::Done;
}

Outcome watchStatus(bool json) {
    const std::unique_ptr<StoreConnection> store = StoreConnection::connect(StoreConnection::Access::Read);
    if (!store) return failNobodyServes();
    const Board board = boardOrComplaint();
    StoreWatch watch(statusParameters(board));
    if (!watch.connect()) return failNobodyServes();

    const bool inPlace = !json && isatty(STDOUT_FILENO);
    Terminal terminal;
    std::optional<RecorderStatus> shown;
    while (std::cout) {
        RecorderStatus status;
        // Without a store the last picture stands; the watch says what has happened.
        if (readStatus(*store, board, status) && status != shown) {
            if (json)
                std::cout << statusJson(status, false) << std::endl;
            else if (inPlace)
                terminal.draw(statusText(status));
            else
                std::cout << (shown ? "\n" : "") << statusText(status) << std::flush;
            shown = std::move(status);
        }
        ConfigEvent event;
        const StoreWatch::Result result = watch.next(event, kLookMilliseconds);
        drain(watch, result);
        if (result == StoreWatch::Result::Reconnected) {
            terminal.forget();
            if (inPlace) shown.reset();
        }
    }
    return Outcome::Done; // main reports that standard output does not take any more
}

} // namespace mediactl
