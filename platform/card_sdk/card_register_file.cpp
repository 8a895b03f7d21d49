#include "card_register_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace {

using Register = std::atomic_ref<std::uint32_t>;
// Other processes touch the same memory: a lock of this process would guard nothing.
static_assert(Register::is_always_lock_free);

constexpr std::size_t kBytes = CardRegisterFile::kRegisters * sizeof(std::uint32_t);

// Where shm_open keeps its objects: a file without a name, as a fresh register file is at first, comes by no other way.
constexpr char kDirectory[] = "/dev/shm";

// errno is EINVAL when the file is there but has another size: it is not a register file.
bool hasRightSize(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) == -1) return false;
    if (S_ISREG(status.st_mode) && static_cast<std::uintmax_t>(status.st_size) == kBytes) return true;
    errno = EINVAL;
    return false;
}

// Gets memory for the whole file now: a page that cannot be had when a register is touched would end the process.
bool reserve(int descriptor) {
    int error = 0;
    do {
        error = posix_fallocate(descriptor, 0, static_cast<off_t>(kBytes));
    } while (error == EINTR);
    errno = error;
    return error == 0;
}

void closeKeepingErrno(int descriptor) {
    const int error = errno;
    close(descriptor);
    errno = error;
}

std::uint32_t shiftedUp(std::uint32_t value, unsigned int shift) { return shift < 32 ? value << shift : 0; }
std::uint32_t shiftedDown(std::uint32_t value, unsigned int shift) { return shift < 32 ? value >> shift : 0; }

} // namespace

bool CardRegisterFile::create() {
    const int existing = shm_open(kName, O_RDWR, 0);
    if (existing != -1) {
        const bool right = hasRightSize(existing);
        closeKeepingErrno(existing);
        return right;
    }
    if (errno != ENOENT) return false;

    // Gets its name when it is complete, so that nobody ever finds a register file without all its registers.
    const int descriptor = ::open(kDirectory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor == -1) return false;
    const std::string nameless = "/proc/self/fd/" + std::to_string(descriptor);
    const std::string path = std::string(kDirectory) + kName;
    const bool made =
        reserve(descriptor) && linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
    closeKeepingErrno(descriptor);
    // Another process was faster; its registers are as good.
    return made || (errno == EEXIST && create());
}

std::unique_ptr<CardRegisterFile> CardRegisterFile::open() {
    const int descriptor = shm_open(kName, O_RDWR, 0);
    if (descriptor == -1) return nullptr;
    void* memory = MAP_FAILED;
    if (hasRightSize(descriptor) && reserve(descriptor))
        memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    closeKeepingErrno(descriptor);
    if (memory == MAP_FAILED) return nullptr;
    return std::unique_ptr<CardRegisterFile>(new CardRegisterFile(static_cast<std::uint32_t*>(memory)));
}

CardRegisterFile::CardRegisterFile(std::uint32_t* registers) : _registers(registers) {}

CardRegisterFile::~CardRegisterFile() { munmap(_registers, kBytes); }

bool CardRegisterFile::write(unsigned int reg, std::uint32_t value, std::uint32_t mask, unsigned int shift) {
    if (reg >= kRegisters) return false;
    const Register target(_registers[reg]);
    const std::uint32_t bits = shiftedUp(value, shift) & mask;
    std::uint32_t before = target.load();
    while (!target.compare_exchange_weak(before, (before & ~mask) | bits)) {
    }
    return true;
}

bool CardRegisterFile::read(unsigned int reg, std::uint32_t& value, std::uint32_t mask, unsigned int shift) const {
    if (reg >= kRegisters) return false;
    value = shiftedDown(Register(_registers[reg]).load() & mask, shift);
    return true;
}
