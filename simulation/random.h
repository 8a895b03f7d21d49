#ifndef MEDIAD_SIMULATION_RANDOM_H
#define MEDIAD_SIMULATION_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace simulation {

// The one source of chance in a history. Its own generator: the library's distributions differ between libraries, and a
// seed has to tell the same story everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : _state(seed * 0x9e3779b97f4a7c15 + 1) {}

    std::uint64_t next() {
        _state += 0x9e3779b97f4a7c15;
        std::uint64_t z = _state;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    // 0 to limit - 1; 0 for no choice.
    std::uint64_t below(std::uint64_t limit) { return limit == 0 ? 0 : next() % limit; }
    // Both ends included.
    std::int64_t between(std::int64_t low, std::int64_t high) {
        return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low) + 1));
    }
    bool chance(unsigned int perMille) { return below(1000) < perMille; }

    template <typename Each>
    const Each& oneOf(const std::vector<Each>& choices) {
        return choices[static_cast<std::size_t>(below(choices.size()))];
    }

private:
    std::uint64_t _state;
};

} // namespace simulation

#endif
