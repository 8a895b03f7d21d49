#ifndef MEDIAD_FUZZERS_FUZZER_H
#define MEDIAD_FUZZERS_FUZZER_H

// What the fuzzers share: taking an input apart, stating what must hold, and standard error as something to look at.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzzers {

// Standard error as it was when the program started: libFuzzer closes it on those who write a lot (-close_fd_mask).
inline const int kTerminal = ::dup(STDERR_FILENO);

// Ends the fuzzer with a finding unless `holds`. The stack that libFuzzer prints tells where.
inline void require(bool holds, const char* what) {
    if (holds) return;
    ::dprintf(kTerminal, "\nDoes not hold: %s\n", what);
    std::abort();
}

// An input, from its beginning on. Behind its end everything is 0 or empty. Nothing depends on the byte order or on the
// layout of anything, so that one corpus does for every machine.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : _left(reinterpret_cast<const char*>(data), size) {}

    bool isEmpty() const { return _left.empty(); }

    std::uint8_t byte() {
        if (_left.empty()) return 0;
        const auto first = static_cast<std::uint8_t>(_left.front());
        _left.remove_prefix(1);
        return first;
    }

    // Four bytes, the highest first.
    std::uint32_t number() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value = value << 8 | byte();
        return value;
    }

    // Any bytes up to a backslash and what follows it, which is skipped; two backslashes stand for one.
    std::string text() {
        std::string text;
        while (!_left.empty()) {
            const char c = static_cast<char>(byte());
            if (c == '\\' && byte() != '\\') break;
            text += c;
        }
        return text;
    }

    // As text, and every '~' behind the beginning of a text repeats what was read so far: long texts from short inputs.
    std::string longText() {
        std::string result;
        for (const char c : text()) {
            if (c == '~' && !result.empty() && result.size() < 4096)
                result += std::string(result);
            else
                result += c;
        }
        return result;
    }

    std::string rest() {
        const std::string all(_left);
        _left = {};
        return all;
    }

private:
    std::string_view _left;
};

// Whether a terminal shows `text` as it is: line feeds are the only control characters in it.
inline bool isHarmless(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return (c < ' ' && c != '\n') || c == 0x7f; });
}

// What the code under test writes to file descriptor 2. The findings go to the terminal as long as the fuzzer runs with
// -close_fd_mask=2.
class StandardError {
public:
    StandardError() : _file(::memfd_create("standard-error", MFD_CLOEXEC)) { forget(); }

    // Since the last call.
    std::string take() {
        std::fflush(stderr);
        std::string text(static_cast<std::size_t>(::lseek(_file, 0, SEEK_END)), '\0');
        if (!text.empty() && ::pread(_file, text.data(), text.size(), 0) == -1) text.clear();
        forget();
        return text;
    }

private:
    void forget() {
        // Each time anew: libFuzzer redirects the descriptor after this object may have been made.
        ::dup2(_file, STDERR_FILENO);
        if (::ftruncate(_file, 0) == -1) std::abort();
        ::lseek(_file, 0, SEEK_SET);
    }

    int _file;
};

} // namespace fuzzers

#endif
