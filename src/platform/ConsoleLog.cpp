#include "platform/ConsoleLog.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <unistd.h>
#include <sys/syscall.h>

#include <errno.h>

namespace NorvAnalytic {

namespace {

std::atomic<std::shared_ptr<const Platform::LogSink>>& installedSink() {
    static auto* sink = new std::atomic<std::shared_ptr<const Platform::LogSink>>();
    return *sink;
}

}  // namespace

void ConsoleLog::setSink(Platform::LogSink sink) {
    installedSink().store(sink ? std::make_shared<const Platform::LogSink>(std::move(sink))
                               : nullptr);
}

std::string ConsoleLog::decorate(const std::string& message) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(
                            now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char prefix[96];
    std::snprintf(prefix, sizeof prefix, "%s.%03lld %s[%ld:%ld] ", stamp,
                  static_cast<long long>(millis), program_invocation_short_name,
                  static_cast<long>(getpid()), static_cast<long>(syscall(SYS_gettid)));
    return prefix + message;
}

void ConsoleLog::write(const std::string& message) {
    if (auto sink = installedSink().load()) {
        (*sink)(message);
        return;
    }
    std::string line = decorate(message);
    line.push_back('\n');
    // One write per line keeps lines from several threads whole.
    static_cast<void>(::write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace NorvAnalytic
