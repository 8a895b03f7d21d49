// mediad: the storage manager daemon. This file is the map of the program: what is made, in which order, and how it
// ends.

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "classes/diagnostics/diagnostics.h"
#include "classes/die/die.h"
#include "config.h"
#include "daemonizer.h"
#include "file_utils.h"
#include "media_manager/media_manager.h"
#include "read_file.h"
#include "serial_number_ossik.h"
#include "slots/live_card.h"
#include "slots/slot_led_register.h"
#include "slots/slot_listener.h"

MediaManager* pManager = nullptr;

namespace {

#define DAEMON_NAME "Media Manager"

// Some ways out of main leave these behind on purpose; here they stay reachable.
LiveCard* card = nullptr;
FileUtils* fileUtils = nullptr;

// main returns it as -1, which a shell sees as 255.
constexpr int kStartFailed = -1;

// Any thread, any time: only what a signal handler may do. Stopping is not done here; the framework has set
// Daemonizer::killed, and the loop ends on its next pass.
void handleTermOrKillSignal(int) {
    static constexpr char kLine[] = DAEMON_NAME "Alarm handleTermOrKillSignal: Syncing drives...\n";
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, kLine, sizeof kLine - 1);
    ::sync();
    errno = error;
}

} // namespace

int main(int argumentCount, char** arguments) {
    // One argument with a 'd' behind its first character, "-d", keeps the daemon in the foreground; anything else does
    // not.
    const bool foreground = argumentCount == 2 && arguments[1][0] != '\0' && arguments[1][1] == 'd';
    if (foreground)
        Daemonizer::setupSignalHandler(DAEMON_NAME, handleTermOrKillSignal, nullptr, true);
    else
        Daemonizer::daemonize(DAEMON_NAME, handleTermOrKillSignal, nullptr, true);

    CreateDescriptors();
    Config* const config = GetMappingConfig("udp", false, true);
    if (config == nullptr) {
        report("Failed to create a Config class");
        return leaveMain(kStartFailed);
    }
    ConfigFactoryImpl& factory = ConfigFactoryImpl::GetInstance();
    ConfigEventChannel* const eventChannel = factory.createEventChannel(kConfigEventLocator);
    if (eventChannel == nullptr) {
        report("Failed to create an Event class");
        factory.release(config);
        return leaveMain(kStartFailed);
    }

    card = new LiveCard;
    card->Open(); // a card that is not there shows up as failing register accesses
    fileUtils = new FileUtils;

    const std::string boardId = SerialNumber_Ossik::GetBoardID();
    std::string specification;
    // What cannot be read is an empty text, and the parser says what it thinks of that.
    read_file("/usr/local/share/specs/" + boardId + ".specification", specification);

    SlotListener listener(config, card);
    if (listener.parseSpecification("0x" + boardId, specification, fileUtils) != 0) {
        report("Failed to parse specification");
        factory.release(eventChannel);
        factory.release(config);
        return leaveMain(kStartFailed);
    }
    if (listener.listen() != 0) { // without it no medium would ever be seen
        factory.release(eventChannel);
        factory.release(config);
        return leaveMain(kStartFailed);
    }

    // Never deleted: other threads may hold on to it until the process is gone.
    pManager = new MediaManager(&listener, card, config, eventChannel, fileUtils);
    pManager->clearLeftovers();
    if (pManager->init() != 0) {
        report("cannot initialize. Exiting");
        Daemonizer::setDone();
        std::exit(leaveMain(kStartFailed));
    }
    pManager->run(true);

    report(" Cleaning up...");
    pManager->cleanup();
    delete fileUtils;
    fileUtils = nullptr;
    SlotLEDRegister::endFlashers();
    card->Close();
    delete card;
    card = nullptr;
    factory.release(eventChannel);
    factory.release(config);
    Daemonizer::setDone();
    report(" Leaving mediad...");
    return leaveMain(0);
}
