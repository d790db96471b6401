#pragma once

#include <NorvAnalytic/Platform.h>

#include <string>

namespace NorvAnalytic {

// The console: each line goes to the installed sink, or to stderr decorated as
// "2026-11-21 05:03:54.123 host[pid:tid] message".
class ConsoleLog {
public:
    static void setSink(Platform::LogSink sink);
    static void write(const std::string& message);
    static std::string decorate(const std::string& message);
};

}  // namespace NorvAnalytic
