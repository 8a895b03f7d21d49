#include "tools/confirmation.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>

namespace mediactl {

Outcome canAsk(bool yes) {
    // The question goes to standard error: where that is a file, nobody would see it.
    if (yes || (isatty(STDIN_FILENO) && isatty(STDERR_FILENO))) return Outcome::Done;
    return fail(Outcome::Failed, "there is no terminal to ask at; --yes does it without asking");
}

Outcome confirm(bool yes, const std::string& question, const std::string& consequence) {
    if (yes) return Outcome::Done;
    std::cout.flush();
    std::cerr << question << " [y/N] " << std::flush;

    std::string answer;
    std::getline(std::cin, answer);
    const bool ended = std::cin.good(); // by a line feed: a line that breaks off is no answer
    if (!ended) std::cerr << '\n';
    std::transform(answer.begin(), answer.end(), answer.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (ended && (answer == "y" || answer == "yes")) return Outcome::Done;
    return fail(Outcome::Failed, "not confirmed; " + consequence);
}

} // namespace mediactl
