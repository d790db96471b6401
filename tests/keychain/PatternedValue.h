#pragma once

#include <cstddef>
#include <exception>
#include <string>

namespace NorvAnalytic::Testing {

// A value that shows who wrote it and whether it arrived whole: "<writer>:<iteration>:"
// followed by one letter, chosen by the iteration, up to the full size.
inline std::string patternedValue(const std::string& writer, int iteration, std::size_t size) {
    std::string value = writer + ":" + std::to_string(iteration) + ":";
    value.resize(size, static_cast<char>('a' + iteration % 26));
    return value;
}

// True when the value is exactly what patternedValue wrote for some writer and iteration.
inline bool isWholePatternedValue(const std::string& value, std::size_t size) {
    const auto first = value.find(':');
    const auto second = first == std::string::npos ? first : value.find(':', first + 1);
    if (second == std::string::npos || value.size() != size) {
        return false;
    }
    try {
        const int iteration = std::stoi(value.substr(first + 1, second - first - 1));
        return value == patternedValue(value.substr(0, first), iteration, size);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace NorvAnalytic::Testing
