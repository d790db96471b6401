#include "storage/DataDirectory.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace NorvAnalytic {

namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        return home;
    }
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "/";
}

// Widens nothing: only group and other bits are taken away.
bool tighten(const std::filesystem::path& path, int flags, mode_t wanted) {
    // The mode is given explicitly at creation, so the host's umask cannot widen it either.
    const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, kFileMode);
    if (descriptor < 0) {
        return false;
    }
    struct stat status {};
    bool tightened = ::fstat(descriptor, &status) == 0;
    if (tightened && (status.st_mode & 077) != 0) {
        tightened = ::fchmod(descriptor, status.st_mode & wanted & 07777) == 0;
    }
    ::close(descriptor);
    return tightened;
}

}  // namespace

std::filesystem::path DataDirectory::path() {
    // Relative values are invalid for XDG variables and must be ignored.
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
        return std::filesystem::path(xdg) / "NorvAnalytic";
    }
    return homeDirectory() / ".local" / "share" / "NorvAnalytic";
}

bool DataDirectory::makePrivate(const std::filesystem::path& directory) {
    if (directory.empty()) {
        return true;
    }
    std::filesystem::path partial;
    for (const auto& component : directory) {
        partial /= component;
        if (::mkdir(partial.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return tighten(directory, O_RDONLY | O_DIRECTORY, kDirectoryMode);
}

bool DataDirectory::makePrivateFile(const std::filesystem::path& file) {
    return tighten(file, O_RDWR | O_CREAT, kFileMode);
}

}  // namespace NorvAnalytic
