#include "tools/status_report.h"

#include <iostream>
#include <memory>
#include <optional>

#include "tools/live_view.h"
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

    LiveView view(json);
    std::optional<RecorderStatus> shown;
    while (std::cout) {
        RecorderStatus status;
        // Without a store the last picture stands; the watch says what has happened.
        if (readStatus(*store, board, status) && status != shown) {
            view.show(json ? statusJson(status, false) + "\n" : statusText(status));
            shown = std::move(status);
        }
        ConfigEvent event;
        const StoreWatch::Result result = watch.next(event, kLookMilliseconds);
        watch.drain(result);
        if (result == StoreWatch::Result::Reconnected && view.forget()) shown.reset();
    }
    return Outcome::Done; // main reports that standard output does not take any more
}

} // namespace mediactl
