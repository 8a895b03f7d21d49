#include "platform/parameter_store/store_journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/parameter_store/byte_order.h"

namespace {

constexpr std::size_t kMarkSize = sizeof kJournalMark - 1;
constexpr off_t kLeastSizeToWriteAnew = 1024 * 1024;
// Far above what a host writes; a larger file is none of ours and is read up to here.
constexpr std::size_t kMostBytesRead = 64 * 1024 * 1024;

constexpr std::array<std::uint32_t, 256> crcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t each = 0; each < table.size(); ++each) {
        std::uint32_t crc = each;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xedb88320U : 0U);
        table[each] = crc;
    }
    return table;
}

std::uint32_t crcOf(const std::uint8_t* bytes, std::size_t size) {
    static constexpr std::array<std::uint32_t, 256> table = crcTable();
    std::uint32_t crc = 0xffffffffU;
    for (std::size_t each = 0; each < size; ++each) crc = (crc >> 8) ^ table[(crc ^ bytes[each]) & 0xff];
    return ~crc;
}

std::time_t monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

bool writeWhole(int file, const std::vector<std::uint8_t>& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(file, bytes.data() + done, bytes.size() - done);
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

// The file's content, up to kMostBytesRead. False with errno set when there is none to read.
bool readFile(const std::string& path, std::vector<std::uint8_t>& bytes) {
    // Nothing that somebody put there instead of the file (a pipe, a link) may hold the host up.
    const local_socket::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file.isOpen()) return false;
    struct stat status {};
    if (::fstat(file.number(), &status) == -1) return false;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return false;
    }
    std::array<std::uint8_t, 65536> piece;
    while (bytes.size() < kMostBytesRead) {
        const ssize_t received = ::read(file.number(), piece.data(), piece.size());
        if (received == -1 && errno == EINTR) continue;
        if (received == -1) return false;
        if (received == 0) break;
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + received);
    }
    return true;
}

// Reads the record at `data`; its size, or 0 when there is no whole one.
std::size_t readRecord(const std::uint8_t* data, std::size_t left, eParam_t& id, StoreEntry& entry) {
    if (left < kRecordHeadSize || numberAt<std::uint32_t>(data) != kRecordMark) return 0;
    const auto size = numberAt<std::uint32_t>(data + 16);
    if (size > left - kRecordHeadSize) return 0;
    if (numberAt<std::uint32_t>(data + 4) != crcOf(data + 8, kRecordHeadSize - 8 + size)) return 0;
    id = numberAt<std::uint32_t>(data + 8);
    const auto type = numberAt<std::uint32_t>(data + 12);
    const std::uint8_t* const content = data + kRecordHeadSize;
    entry = {};
    if (type == static_cast<std::uint32_t>(ParameterType::Integer) && size == 4) {
        entry.integer = static_cast<int>(numberAt<std::uint32_t>(content));
    } else if (type == static_cast<std::uint32_t>(ParameterType::String)) {
        entry.type = ParameterType::String;
        entry.text.assign(reinterpret_cast<const char*>(content), size);
    } else {
        return 0;
    }
    return kRecordHeadSize + size;
}

} // namespace

StoreJournal::StoreJournal(std::string path) : _path(std::move(path)) {}

bool StoreJournal::isKept(eParam_t id) {
    const ParameterDescriptor* descriptor = findParameter(id);
    return descriptor == nullptr || descriptor->kind != ParameterKind::Command;
}

void StoreJournal::appendRecord(Bytes& bytes, eParam_t id, const StoreEntry& entry) {
    const std::size_t begin = bytes.size();
    appendNumber(bytes, kRecordMark);
    appendNumber(bytes, std::uint32_t{0});
    appendNumber(bytes, id);
    appendNumber(bytes, static_cast<std::uint32_t>(entry.type));
    if (entry.type == ParameterType::Integer) {
        appendNumber(bytes, std::uint32_t{4});
        appendNumber(bytes, static_cast<std::uint32_t>(entry.integer));
    } else {
        appendNumber(bytes, static_cast<std::uint32_t>(entry.text.size()));
        bytes.insert(bytes.end(), entry.text.begin(), entry.text.end());
    }
    const std::uint32_t crc = crcOf(bytes.data() + begin + 8, bytes.size() - begin - 8);
    for (std::size_t each = 0; each < 4; ++each)
        bytes[begin + 4 + each] = static_cast<std::uint8_t>(crc >> (24 - 8 * each) & 0xff);
}

void StoreJournal::load(StoreEngine& engine) {
    Bytes bytes;
    if (!readFile(_path, bytes)) {
        if (errno != ENOENT) sayLine("paramstore: cannot read " + _path + ": " + std::strerror(errno));
        return;
    }
    std::size_t values = 0;
    std::size_t refused = 0;
    std::size_t at = kMarkSize;
    bool whole = bytes.size() >= kMarkSize && std::memcmp(bytes.data(), kJournalMark, kMarkSize) == 0;
    if (!whole) at = 0;
    while (at < bytes.size()) {
        eParam_t id = 0;
        StoreEntry entry;
        const std::size_t size = readRecord(bytes.data() + at, bytes.size() - at, id, entry);
        if (size == 0) {
            whole = false;
            // On to the next place that can begin a record: its mark's first byte.
            const auto next = std::find(bytes.begin() + static_cast<std::ptrdiff_t>(at) + 1, bytes.end(),
                                        static_cast<std::uint8_t>(kRecordMark >> 24));
            at = static_cast<std::size_t>(next - bytes.begin());
            continue;
        }
        at += size;
        if (isKept(id)) ++(engine.restore(id, entry) ? values : refused);
    }
    if (!whole || refused != 0) {
        sayLine("paramstore: " + _path + " is damaged: " + std::to_string(values) + " records read, " +
                (whole ? std::to_string(refused) + " refused" : "the rest is lost"));
    }
}

void StoreJournal::open(StoreEngine& engine) {
    load(engine);
    engine.inspect([this](const StoreTable& table) {
        if (!writeAnew(table)) giveUp();
    });
}

bool StoreJournal::writeAnew(const StoreTable& table) {
    Bytes bytes(kJournalMark, kJournalMark + kMarkSize);
    for (const auto& [id, entry] : table) {
        // Defaults stay out: a later version of the table may have others.
        const bool isDefault =
            entry.sequence == 0 && entry.integer == 0 && entry.text.empty() && findParameter(id) != nullptr;
        if (isKept(id) && !isDefault) appendRecord(bytes, id, entry);
    }
    const std::string fresh = _path + ".new";
    ::unlink(fresh.c_str());
    local_socket::Descriptor file(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.isOpen()) return false;
    if (!writeWhole(file.number(), bytes) || ::rename(fresh.c_str(), _path.c_str()) == -1) {
        const int error = errno;
        ::unlink(fresh.c_str());
        errno = error;
        return false;
    }
    _file = std::move(file);
    _size = _sizeAnew = static_cast<off_t>(bytes.size());
    return true;
}

bool StoreJournal::append(const Bytes& record) {
    if (writeWhole(_file.number(), record)) {
        _size += static_cast<off_t>(record.size());
        return true;
    }
    // Half a record would hide what comes after it.
    const int error = errno;
    if (::ftruncate(_file.number(), _size) == 0) ::lseek(_file.number(), _size, SEEK_SET);
    errno = error;
    return false;
}

void StoreJournal::giveUp() {
    if (!_said) sayLine("paramstore: cannot write " + _path + ": " + std::strerror(errno));
    _said = true;
    _file.close();
    _tryAgain = monotonicSeconds() + 1;
}

void StoreJournal::changed(eParam_t id, const StoreEntry& entry, timeval /*when*/, const StoreTable& table) {
    if (!isKept(id)) return;
    if (!_file.isOpen()) {
        if (monotonicSeconds() < _tryAgain) return;
        // The table holds this set already.
        if (!writeAnew(table)) giveUp();
        return;
    }
    _record.clear();
    appendRecord(_record, id, entry);
    const off_t limit = std::max(kLeastSizeToWriteAnew, 4 * _sizeAnew);
    if (_size + static_cast<off_t>(_record.size()) > limit ? !writeAnew(table) : !append(_record)) giveUp();
}
