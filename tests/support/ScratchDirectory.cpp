#include "support/ScratchDirectory.h"

#include <stdlib.h>

#include <string>

namespace NorvAnalytic::Testing {

ScratchDirectory::ScratchDirectory(Use use) : dataHome_(use == Use::DataHome) {
    std::string pattern = std::filesystem::temp_directory_path() / "norv-test-XXXXXX";
    path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
    if (dataHome_) {
        ::setenv("XDG_DATA_HOME", path_.c_str(), 1);
    }
}

ScratchDirectory::~ScratchDirectory() {
    if (dataHome_) {
        ::unsetenv("XDG_DATA_HOME");
    }
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace NorvAnalytic::Testing
