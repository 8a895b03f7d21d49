#ifndef MEDIAD_SIMULATION_TRACE_H
#define MEDIAD_SIMULATION_TRACE_H

#include <cstdint>
#include <deque>
#include <string>

namespace simulation {

// Nanoseconds since the appliance was switched on.
using Nanoseconds = std::int64_t;
inline constexpr Nanoseconds kMicrosecond = 1'000;
inline constexpr Nanoseconds kMillisecond = 1'000'000;
inline constexpr Nanoseconds kSecond = 1'000'000'000;

// What happened, one line an effect. The same seed gives the same lines: no addresses, no real time, nothing whose order
// is the library's choice. Histories run without one, for writing lines costs more than what they tell of; one that
// fails is lived once more, with its last lines kept.
class Trace {
public:
    enum class Mode { Off, KeepLast, Print };

    Trace(Mode mode, std::size_t kept) : _mode(mode), _kept(kept) {}

    bool isOn() const { return _mode != Mode::Off; }

    // `text` is called only when somebody wants the line.
    template <typename Text>
    void add(Nanoseconds now, const Text& text) {
        if (isOn()) put(now, text());
    }
    const std::deque<std::string>& lines() const { return _lines; }

private:
    void put(Nanoseconds now, const std::string& text);

    const Mode _mode;
    const std::size_t _kept;
    std::deque<std::string> _lines;
};

// `text` on one line, whatever is in it.
std::string shown(const std::string& text);

} // namespace simulation

#endif
