#ifndef MEDIAD_TESTS_MEDIA_MANAGER_FAKE_CLIP_FINDER_H
#define MEDIAD_TESTS_MEDIA_MANAGER_FAKE_CLIP_FINDER_H

// Stands in for the closed clip scanner at link time: the test program defines ClipFinder's operations itself. Every
// call becomes a line of the journal:
//
//     clips scan PATH | clips find true false true | clips number 2 | clips flushAll | clips flushClips
//     clips remove PATH | clips next b of a,b,c without b.mov|c.mov

#include <functional>
#include <list>
#include <optional>
#include <string>

#include "clip.h"
#include "config.h"
#include "tests/fakes/fakes.h"

namespace fakes {

struct ClipScanner {
    // The one that the fake operations talk to; null while no test runs.
    static ClipScanner* current;

    explicit ClipScanner(Journal& journalToUse) : journal(journalToUse) { current = this; }
    ~ClipScanner() { current = nullptr; }
    ClipScanner(const ClipScanner&) = delete;
    ClipScanner& operator=(const ClipScanner&) = delete;

    void called(Config* finderConfig, const std::string& line);

    Journal& journal;
    Config* config = nullptr;                             // what every finder has to be made with
    std::list<Clip> found;                                // what findClips gives
    std::optional<std::list<Clip>> selected;              // the same, when its second flag is set
    std::optional<std::string> next;                      // the clip after a deletion; the current one without this
    std::function<void(const std::string& line)> onCall;  // after the line was written
};

// A clip with a name and nothing else.
Clip clip(const std::string& name);

} // namespace fakes

#endif
