#include "tools/outcome.h"

#include <iostream>

#include "tools/safe_text.h"

namespace mediactl {

void say(const std::string& line) {
    // Whatever went to standard output belongs in front of this line where both go to one place.
    std::cout.flush();
    std::cerr << "mediactl: " + printable(line) + "\n" << std::flush;
}

Outcome fail(Outcome outcome, const std::string& line) {
    say(line);
    return outcome;
}

Outcome failNobodyServes() {
    return fail(Outcome::NobodyServes, "nobody serves the parameter store (neither mediad nor paramd is running)");
}

} // namespace mediactl
