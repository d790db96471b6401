// What the SDK costs an idle host: how often each of our threads wakes while nothing waits (the
// context switches of /proc/self/task/*/status), before and after a refused event is resent,
// and the resident memory initWithKey and the first events add, with where it goes; then how
// soon another process's forgetDevice() reaches the UUID this one holds. The collection server
// is a child process (cpp-httplib), so that none of its memory or threads count here.
// usage: idle_bench [seconds per idle window, default 10]
#include <NorvAnalytic/NorvAnalytic.h>
#include <curl/curl.h>
#include <httplib.h>
#include <malloc.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ResidentMemory.h"

namespace {

using NorvAnalytic::NorvAnalytics;
using Clock = std::chrono::steady_clock;

// The server, forked before the SDK starts a thread: 200 to everything, except 500 to the first
// event whose body names "refuse-me". It writes one byte to `heard` per request.
pid_t startServer(int& port, int& heard) {
    int portPipe[2];
    int heardPipe[2];
    if (::pipe(portPipe) != 0 || ::pipe(heardPipe) != 0) {
        return -1;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(portPipe[0]);
        ::close(heardPipe[0]);
        httplib::Server server;
        bool refused = false;
        server.Post("/api/v3/saveEvent", [&](const httplib::Request& request, httplib::Response& response) {
            const bool refuse = !refused && request.body.find("refuse-me") != std::string::npos;
            refused = refused || refuse;
            response.status = refuse ? 500 : 200;
            response.set_content(R"({"payload":{"analytics_enabled":true}})", "application/json");
            const char byte = 'r';
            static_cast<void>(::write(heardPipe[1], &byte, 1));
        });
        const int bound = server.bind_to_any_port("127.0.0.1");
        static_cast<void>(::write(portPipe[1], &bound, sizeof bound));
        server.listen_after_bind();
        ::_exit(0);
    }
    ::close(portPipe[1]);
    ::close(heardPipe[1]);
    if (::read(portPipe[0], &port, sizeof port) != sizeof port) {
        return -1;
    }
    ::close(portPipe[0]);
    heard = heardPipe[0];
    return child;
}

// Waits until the server has heard `count` requests in all.
bool serverHeard(int heard, int count, std::chrono::seconds limit) {
    static int total = 0;
    const auto deadline = Clock::now() + limit;
    while (total < count && Clock::now() < deadline) {
        char byte = 0;
        if (::read(heard, &byte, 1) == 1) {
            ++total;
        }
    }
    return total >= count;
}

struct ThreadSwitches {
    std::string name;
    unsigned long long switches;
};

std::map<long, ThreadSwitches> ourThreads() {
    std::map<long, ThreadSwitches> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (!name.starts_with("norv-")) {
            continue;
        }
        unsigned long long switches = 0;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) {
                switches += std::stoull(line.substr(24));
            } else if (line.starts_with("nonvoluntary_ctxt_switches:")) {
                switches += std::stoull(line.substr(27));
            }
        }
        threads[std::stol(task.path().filename().string())] = {name, switches};
    }
    return threads;
}

// Each thread of ours, its wake-ups in the window; the total last.
void idleWindow(const char* title, std::chrono::seconds window) {
    const auto before = ourThreads();
    std::this_thread::sleep_for(window);
    const auto after = ourThreads();
    std::printf("%s, %lld s:\n", title, static_cast<long long>(window.count()));
    unsigned long long total = 0;
    for (const auto& [id, thread] : after) {
        const auto earlier = before.find(id);
        const unsigned long long wakeUps =
            earlier != before.end() ? thread.switches - earlier->second.switches : thread.switches;
        total += wakeUps;
        std::printf("  %-16s %6llu wake-ups  %6.2f/s\n", thread.name.c_str(), wakeUps,
                    static_cast<double>(wakeUps) / static_cast<double>(window.count()));
    }
    std::printf("  %-16s %6llu wake-ups  %6.2f/s\n", "all of ours", total,
                static_cast<double>(total) / static_cast<double>(window.count()));
}

// Where the resident memory is, in kB.
struct Memory {
    double resident = 0;
    double anonymous = 0;
    double files = 0;
    double heap = 0;
    double stacks = 0;
    double sqlite = 0;
    int threads = 0;
    // Resident pages of each mapped file (the libraries' code and data), by name.
    std::map<std::string, double> byFile;
};

Memory memoryNow() {
    Memory memory;
    memory.resident = NorvAnalytic::Bench::residentKilobytes();
    memory.anonymous = NorvAnalytic::Bench::statusKilobytes("RssAnon:");
    memory.files = NorvAnalytic::Bench::statusKilobytes("RssFile:");
    const struct mallinfo2 heap = ::mallinfo2();
    memory.heap = static_cast<double>(heap.uordblks + heap.hblkhd) / 1024.0;
    memory.sqlite = static_cast<double>(sqlite3_memory_used()) / 1024.0;
    // A thread's stack is one anonymous mapping of the default stack size (8 MiB) beside its
    // guard page: what of it is resident is what the thread touched.
    std::ifstream smaps("/proc/self/smaps");
    bool stack = false;
    std::string file;
    for (std::string line; std::getline(smaps, line);) {
        if (!line.empty() && std::isxdigit(static_cast<unsigned char>(line[0])) &&
            line.find('-') != std::string::npos && line.find(' ') > line.find('-')) {
            std::istringstream fields(line);
            std::string range;
            std::string permissions;
            fields >> range >> permissions;
            const auto dash = range.find('-');
            const unsigned long long size = std::stoull(range.substr(dash + 1), nullptr, 16) -
                                            std::stoull(range.substr(0, dash), nullptr, 16);
            std::string rest;
            std::getline(fields, rest);
            const auto slash = rest.rfind('/');
            file = slash == std::string::npos ? "" : rest.substr(slash + 1);
            stack = permissions == "rw-p" && size == 8 << 20 && file.empty();
        } else if (line.starts_with("Rss:")) {
            const double resident = std::stod(line.substr(4));
            if (stack) {
                memory.stacks += resident;
            }
            if (!file.empty()) {
                memory.byFile[file] += resident;
            }
        }
    }
    memory.threads = static_cast<int>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                      std::filesystem::directory_iterator()));
    return memory;
}

// The files whose resident pages grew most between base and now.
void printFiles(const Memory& now, const Memory& base) {
    std::vector<std::pair<double, std::string>> grown;
    for (const auto& [file, resident] : now.byFile) {
        const auto earlier = base.byFile.find(file);
        const double growth = resident - (earlier != base.byFile.end() ? earlier->second : 0.0);
        if (growth >= 32) {
            grown.emplace_back(growth, file);
        }
    }
    std::sort(grown.rbegin(), grown.rend());
    for (const auto& [growth, file] : grown) {
        std::printf("    %-32s %+6.0f kB\n", file.c_str(), growth);
    }
}

void printMemory(const char* step, const Memory& now, const Memory& base) {
    std::printf("%-34s RSS %+7.0f kB (anonymous %+6.0f, files %+6.0f; heap in use %+6.0f, "
                "thread stacks %+5.0f, SQLite %+5.0f), %d threads\n",
                step, now.resident - base.resident, now.anonymous - base.anonymous,
                now.files - base.files, now.heap - base.heap, now.stacks - base.stacks,
                now.sqlite - base.sqlite, now.threads);
}

}  // namespace

// Another process forgets the device, ten times, while this one holds the UUID in memory: how
// long after that process's forgetDevice() returned this one no longer uses the old UUID.
void forgetLatency() {
    std::vector<double> latencies;
    for (int round = 0; round < 10; ++round) {
        const std::string held = NorvAnalytics::getNorvAnalyticUUID();
        int returned[2];
        if (::pipe(returned) != 0) {
            return;
        }
        const pid_t child = ::fork();
        if (child == 0) {
            ::dup2(returned[1], STDOUT_FILENO);
            ::execl("/proc/self/exe", "idle_bench", "forget", nullptr);
            ::_exit(127);
        }
        ::close(returned[1]);
        long long forgotAt = 0;
        static_cast<void>(::read(returned[0], &forgotAt, sizeof forgotAt));
        ::close(returned[0]);
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (NorvAnalytics::getNorvAnalyticUUID() == held && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        const auto seenAt = Clock::now();
        ::waitpid(child, nullptr, 0);
        const auto forgot = Clock::time_point(std::chrono::nanoseconds(forgotAt));
        latencies.push_back(
            std::max(0.0, std::chrono::duration<double, std::milli>(seenAt - forgot).count()));
    }
    std::sort(latencies.begin(), latencies.end());
    std::printf("another process's forgetDevice() reaches the cached UUID: median %.1f ms, "
                "max %.1f ms (10 rounds)\n",
                latencies[latencies.size() / 2], latencies.back());
}

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "forget") {
        NorvAnalytics::forgetDevice();
        const long long now = std::chrono::nanoseconds(Clock::now().time_since_epoch()).count();
        return ::write(STDOUT_FILENO, &now, sizeof now) == sizeof now ? 0 : 1;
    }
    if (argc > 1 && std::string(argv[1]) == "curl-init") {
        const double before = NorvAnalytic::Bench::residentKilobytes();
        curl_global_init(CURL_GLOBAL_DEFAULT);
        std::printf("curl_global_init alone, in a fresh process: RSS %+.0f kB\n",
                    NorvAnalytic::Bench::residentKilobytes() - before);
        return 0;
    }
    const std::chrono::seconds window(argc > 1 ? std::atoi(argv[1]) : 10);
    int port = 0;
    int heard = -1;
    const pid_t server = startServer(port, heard);
    if (server < 0) {
        std::fprintf(stderr, "idle_bench: no server\n");
        return 1;
    }
    std::string data = std::filesystem::temp_directory_path() / "norv-idle-XXXXXX";
    if (::mkdtemp(data.data()) == nullptr) {
        return 1;
    }
    ::setenv("XDG_DATA_HOME", data.c_str(), 1);

    const Memory base = memoryNow();
    std::printf("before initWithKey: RSS %.0f kB, %d threads\n", base.resident, base.threads);
    NorvAnalytics::setCollectionServerHost("127.0.0.1:" + std::to_string(port));
    NorvAnalytics::initWithKey(std::string("idle-bench"));
    NorvAnalytics::setSecureUrl(false);
    const Memory started = memoryNow();
    printMemory("after initWithKey", started, base);
    NorvAnalytics::sendAppOpenEvent();
    NorvAnalytics::sendEventWithPageName("Orders");
    const bool delivered = NorvAnalytics::flush(std::chrono::seconds(10));
    const Memory sent = memoryNow();
    printMemory("after the first two events", sent, base);
    printMemory("  of which the events", sent, started);

    // The first resend tick finds nothing and lets the timer rest.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    idleWindow("idle, nothing saved", window);

    NorvAnalytics::sendEventWithPageName("refuse-me");
    const auto refusedAt = Clock::now();
    const bool resent = serverHeard(heard, 4, std::chrono::seconds(5));
    std::printf("a refused event was resent %.0f ms after it was sent\n",
                std::chrono::duration<double, std::milli>(Clock::now() - refusedAt).count());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    idleWindow("idle again after the resend", window);
    const Memory end = memoryNow();
    printMemory("at the end", end, base);
    std::printf("  the files' pages that grew (shared with every process that maps them):\n");
    printFiles(end, base);

    forgetLatency();

    // What libcurl and OpenSSL take to start, beside the SDK's own share, in a fresh process.
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/proc/self/exe", "idle_bench", "curl-init", nullptr);
        ::_exit(127);
    }
    ::waitpid(child, nullptr, 0);
    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
    std::filesystem::remove_all(data);
    return delivered && resent ? 0 : 2;
}
