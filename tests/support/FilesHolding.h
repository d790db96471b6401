#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

namespace NorvAnalytic::Testing {

// Every regular file under directory, at any depth, whose bytes contain text anywhere, as
// binary: the files that still hold a value the SDK was told to erase.
std::vector<std::filesystem::path> filesHolding(const std::filesystem::path& directory,
                                                std::string_view text);

}  // namespace NorvAnalytic::Testing
