#pragma once

#include <filesystem>

namespace NorvAnalytic {

// Where our files live: $XDG_DATA_HOME/NorvAnalytic, or ~/.local/share/NorvAnalytic without it.
// The directory is readable by its owner only, as every file we keep in it.
class DataDirectory {
public:
    static std::filesystem::path path();
    // Makes the missing directories of a path, each readable by its owner only, and takes group
    // and other bits away from the last one if it already existed.
    static bool makePrivate(const std::filesystem::path& directory);
    // Creates the file with mode 0600 if it is missing, and takes group and other bits away
    // from an existing one; a symbolic link is refused.
    static bool makePrivateFile(const std::filesystem::path& file);
};

}  // namespace NorvAnalytic
