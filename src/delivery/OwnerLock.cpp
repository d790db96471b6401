#include "delivery/OwnerLock.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <optional>

namespace NorvAnalytic {

namespace {

constexpr std::size_t kTokenDigits = 16;

// Byte 0 is the file's "in use" byte; owners take one of the 2^62 bytes after it.
long long offsetOf(std::uint64_t number) {
    return 1 + static_cast<long long>(number & 0x3fff'ffff'ffff'ffffULL);
}

std::optional<std::uint64_t> numberOf(std::string_view token) {
    std::uint64_t number = 0;
    if (token.size() != kTokenDigits) {
        return std::nullopt;
    }
    const auto [end, error] = std::from_chars(token.data(), token.data() + token.size(), number, 16);
    if (error != std::errc() || end != token.data() + token.size()) {
        return std::nullopt;
    }
    return number;
}

flock byteLock(short type, long long offset) {
    flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = offset;
    lock.l_len = 1;
    return lock;
}

}  // namespace

std::unique_ptr<OwnerLock> OwnerLock::acquire(const std::filesystem::path& queueFile) {
    std::filesystem::path path = queueFile;
    path.replace_extension(".lock");
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return nullptr;
    }
    // A token that another process holds is drawn again: it can only be a collision.
    for (int attempt = 0; attempt < 8; ++attempt) {
        std::uint64_t number = 0;
        if (::getrandom(&number, sizeof number, 0) != sizeof number) {
            continue;
        }
        std::array<char, kTokenDigits + 1> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
        std::string token(kTokenDigits - static_cast<std::size_t>(end - digits.data()), '0');
        token.append(digits.data(), end);
        std::unique_ptr<OwnerLock> lock(new OwnerLock(descriptor, token, offsetOf(number)));
        if (lock->lockByte(F_WRLCK, lock->offset_, false)) {
            return lock;
        }
        lock->descriptor_ = -1;
    }
    ::close(descriptor);
    return nullptr;
}

OwnerLock::OwnerLock(int descriptor, std::string token, long long offset)
    : descriptor_(descriptor), token_(std::move(token)), offset_(offset) {}

OwnerLock::~OwnerLock() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

void OwnerLock::abandon() {
    // Unlocking here would unlock the parent's locks: they are one open file description.
    ::close(descriptor_);
    descriptor_ = -1;
}

bool OwnerLock::lockByte(short type, long long offset, bool wait) {
    flock lock = byteLock(type, offset);
    while (::fcntl(descriptor_, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock) != 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool OwnerLock::isAlive(std::string_view owner) const {
    const std::optional<std::uint64_t> number = numberOf(owner);
    if (!number) {
        return false;
    }
    flock probe = byteLock(F_WRLCK, offsetOf(*number));
    if (::fcntl(descriptor_, F_OFD_GETLK, &probe) != 0) {
        // Unknown is alive: another's rows are never taken on a guess.
        return true;
    }
    return probe.l_type != F_UNLCK;
}

bool OwnerLock::use() { return lockByte(F_RDLCK, 0, true); }

bool OwnerLock::useAlone() { return lockByte(F_WRLCK, 0, false); }

void OwnerLock::stopUsing() { lockByte(F_UNLCK, 0, false); }

}  // namespace NorvAnalytic
