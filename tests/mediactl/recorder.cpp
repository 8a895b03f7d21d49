#include "recorder.h"

#include <fcntl.h>
#include <iconv.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {
constexpr char kRegisters[] = "/dev/shm/mediad-card";
}

void Recorder::serve(std::vector<std::string> rules) {
    _host = std::make_unique<Program>(commandLine(RECORDER_STAND_IN, std::move(rules)));
    ASSERT_TRUE(_host->waitForOutput("ready\n")) << _host->errors();
}

void Recorder::killHost() {
    _host->kill(SIGKILL);
    EXPECT_EQ(_host->wait(), 128 + SIGKILL);
}

void Recorder::writeBoard(const std::string& text) {
    writeFile("/etc/board-id", "00000a3c\n");
    std::filesystem::create_directories("/usr/local/share/specs");
    writeFile("/usr/local/share/specs/00000a3c.specification", text);
}

void Recorder::expectFailure(const Result& result, int status, const std::string& line) {
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors.find("mediactl: "), 0U) << result.errors;
    EXPECT_NE(result.errors.find(line), std::string::npos) << result.errors;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
}

std::string Recorder::value(const std::string& parameter) {
    const Result result = mediactl({"get", parameter});
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output.substr(0, result.output.find('\n'));
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    ASSERT_TRUE(file.flush()) << path;
}

bool isUtf8(std::string text) {
    const iconv_t conversion = iconv_open("UCS-4LE", "UTF-8");
    EXPECT_NE(conversion, reinterpret_cast<iconv_t>(-1));
    std::string wide(text.size() * 4, '\0');
    char* from = text.data();
    char* to = wide.data();
    std::size_t left = text.size();
    std::size_t room = wide.size();
    const bool good = iconv(conversion, &from, &left, &to, &room) != static_cast<std::size_t>(-1) && left == 0;
    iconv_close(conversion);
    return good;
}

void writeRegister(unsigned int reg, std::uint32_t value) {
    const int file = open(kRegisters, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_GE(file, 0);
    struct stat present {};
    ASSERT_EQ(fstat(file, &present), 0);
    if (present.st_size == 0) {
        ASSERT_EQ(ftruncate(file, 65536 * 4), 0);
    }
    ASSERT_EQ(pwrite(file, &value, sizeof value, static_cast<off_t>(reg) * 4), 4);
    close(file);
}

std::uint32_t readRegister(unsigned int reg) {
    std::uint32_t value = 0;
    const int file = open(kRegisters, O_RDONLY | O_CLOEXEC);
    EXPECT_GE(file, 0);
    EXPECT_EQ(pread(file, &value, sizeof value, static_cast<off_t>(reg) * 4), 4);
    close(file);
    return value;
}
