#include "support/FilesHolding.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

namespace NorvAnalytic::Testing {

std::vector<std::filesystem::path> filesHolding(const std::filesystem::path& directory,
                                                std::string_view text) {
    std::vector<std::filesystem::path> holding;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>()};
        if (std::ranges::search(bytes, text).begin() != bytes.end()) {
            holding.push_back(entry.path());
        }
    }
    return holding;
}

}  // namespace NorvAnalytic::Testing
