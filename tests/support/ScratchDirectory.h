#pragma once

#include <filesystem>

namespace NorvAnalytic::Testing {

// A fresh directory of the test's own under the system's temporary directory, removed with all
// it holds at the end. As a data home, XDG_DATA_HOME points at it meanwhile, so that the queue
// file and the keychain of the SDK land there.
class ScratchDirectory {
public:
    enum class Use { Plain, DataHome };
    explicit ScratchDirectory(Use use = Use::Plain);
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
    bool dataHome_;
};

}  // namespace NorvAnalytic::Testing
