#ifndef MEDIAD_TESTS_MEDIACTL_RECORDER_H
#define MEDIAD_TESTS_MEDIACTL_RECORDER_H

// The recorder around mediactl: the store's host, the card's registers, the board's file.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "program.h"

class Recorder : public testing::Test {
protected:
    // Hosts the store; `rules` as recorder_stand_in.cpp tells.
    void serve(std::vector<std::string> rules = {});

    // The host is gone from one moment to the next.
    void killHost();

    void writeBoard(const std::string& text);

    // One line on standard error, and nothing on standard output.
    static void expectFailure(const Result& result, int status, const std::string& line);

    std::string value(const std::string& parameter);

    std::unique_ptr<Program> _host;
};

// Writes `text` into a file, which is made.
void writeFile(const std::string& path, const std::string& text);

// What JSON has to be; the parser that the tests use does not look.
bool isUtf8(std::string text);

// The card's register file, as a program of its own would see it: 65,536 words of 32 bits.
void writeRegister(unsigned int reg, std::uint32_t value);
std::uint32_t readRegister(unsigned int reg);

#endif
