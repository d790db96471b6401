#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytic.h>
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

// Opens 64 live pages on a norv-collector of its own, sends a burst of 10,000 events through
// the SDK, and prints whether every event was answered, how late the slowest page saw an
// event, and the collector's peak resident memory.
// usage: collector_pages_bench [path/to/norv-collector] [pages] [events]
namespace {

using namespace NorvAnalytic;
using WallClock = std::chrono::system_clock;

// A live page: reads the stream and keeps the newest event id it saw and how long after its
// arrival at the collector the page saw the oldest event of each batch.
struct LivePage {
    std::atomic<long long> lastId{0};
    std::atomic<long long> worstMillis{0};
    std::atomic<int> reconnects{0};
    std::string pending;

    void take(const char* data, std::size_t length) {
        pending.append(data, length);
        const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  WallClock::now().time_since_epoch())
                                  .count();
        std::size_t end = 0;
        while ((end = pending.find("\n\n")) != std::string::npos) {
            const std::string message = pending.substr(0, end);
            pending.erase(0, end + 2);
            if (!message.starts_with("id: ")) {
                continue;
            }
            long long id = 0;
            std::from_chars(message.data() + 4, message.data() + message.size(), id);
            lastId = id;
            const std::size_t at = message.find("\"received_at\":\"");
            if (at != std::string::npos) {
                worstMillis =
                    std::max<long long>(worstMillis, now - millisOf(message.substr(at + 15, 24)));
            }
        }
    }

    // "2026-11-25T07:34:45.243Z" as milliseconds since the epoch.
    static long long millisOf(const std::string& stamp) {
        std::tm utc{};
        strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
        int millis = 0;
        std::from_chars(stamp.data() + 20, stamp.data() + 23, millis);
        return static_cast<long long>(timegm(&utc)) * 1000 + millis;
    }
};

long long kilobytes(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with(field)) {
            return std::stoll(line.substr(field.size()));
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string collector = argc > 1 ? argv[1] : NORV_COLLECTOR;
    const int pageCount = argc > 2 ? std::atoi(argv[2]) : 64;
    const int eventCount = argc > 3 ? std::atoi(argv[3]) : 10000;
    signal(SIGPIPE, SIG_IGN);

    char work[] = "/tmp/norv-pages-bench.XXXXXX";
    if (mkdtemp(work) == nullptr) {
        return 2;
    }
    setenv("XDG_DATA_HOME", (std::string(work) + "/data").c_str(), 1);
    int out[2];
    if (pipe(out) != 0) {
        return 2;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const std::string database = std::string(work) + "/collector.sqlite";
    std::vector<std::string> words{collector, "serve", "--port", "0", "--db", database};
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, collector.c_str(), &actions, nullptr, arguments.data(), environ) != 0) {
        std::cerr << "collector_pages_bench: cannot start " << collector << "\n";
        return 2;
    }
    close(out[1]);
    std::string banner;
    char c = 0;
    while (read(out[0], &c, 1) == 1 && c != '\n') {
        banner += c;
    }
    const std::size_t colon = banner.find("127.0.0.1:");
    const int port = colon == std::string::npos ? 0 : std::atoi(banner.c_str() + colon + 10);
    if (port == 0) {
        std::cerr << "collector_pages_bench: no collector: " << banner << "\n";
        return 2;
    }

    std::vector<LivePage> pages(static_cast<std::size_t>(pageCount));
    std::atomic<bool> stopping{false};
    std::vector<std::thread> readers;
    for (LivePage& page : pages) {
        readers.emplace_back([&page, &stopping, port] {
            // As a browser does, a page that loses its stream opens it again where it left off.
            while (!stopping) {
                httplib::Client client("127.0.0.1", port);
                client.set_read_timeout(std::chrono::seconds(10));
                const httplib::Headers from{{"Last-Event-ID", std::to_string(page.lastId.load())}};
                client.Get("/api/stream", from, [&](const char* data, std::size_t length) {
                    page.take(data, length);
                    return !stopping.load();
                });
                page.pending.clear();
                page.reconnects += stopping ? 0 : 1;
            }
        });
    }
    httplib::Client control("127.0.0.1", port);
    const auto livePages = [&control] {
        const auto state = control.Get("/control/state");
        const std::size_t at = state ? state->body.find("\"live_pages\":") : std::string::npos;
        return at == std::string::npos ? -1 : std::atoi(state->body.c_str() + at + 13);
    };
    while (livePages() < pageCount) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }

    std::atomic<int> dropped{0};
    Platform::setDiagnosticsSink([&dropped](DiagnosticLevel, const std::string& line) {
        if (line.find("drop") != std::string::npos) {
            ++dropped;
        }
    });
    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.example.NorvBench",
        Bundle::InfoDictionary{{"CFBundleShortVersionString", "1.0"}, {"CFBundleVersion", "1"}}));
    NorvAnalytics::initWithKey(std::string("bench-key"));
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::sharedController().setUrlString("http://127.0.0.1:" + std::to_string(port) +
                                                   "/api/v3/saveEvent");
    const auto start = std::chrono::steady_clock::now();
    for (int index = 0; index < eventCount; ++index) {
        NorvAnalytics::sendEventWithPageName("Burst " + std::to_string(index));
    }
    const bool answered = NorvAnalytics::flush(std::chrono::seconds(300));
    const double burstSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    const auto counts = control.Get("/api/counts");
    const std::size_t at = counts ? counts->body.find("\"last_id\":") : std::string::npos;
    const long long lastId =
        at == std::string::npos ? -1 : std::atoll(counts->body.c_str() + at + 10);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto allSeen = [&] {
        return std::all_of(pages.begin(), pages.end(),
                           [&](const LivePage& page) { return page.lastId >= lastId; });
    };
    while (!allSeen() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const auto state = control.Get("/control/state");
    long long worst = 0;
    int behind = 0;
    int reconnects = 0;
    for (const LivePage& page : pages) {
        reconnects += page.reconnects;
        worst = std::max<long long>(worst, page.worstMillis);
        behind += page.lastId < lastId ? 1 : 0;
    }
    const long long peakKb = kilobytes(pid, "VmHWM:");
    stopping = true;
    kill(pid, SIGTERM);
    for (std::thread& reader : readers) {
        reader.join();
    }
    waitpid(pid, nullptr, 0);
    std::filesystem::remove_all(work);

    std::printf("live pages             %d\n", pageCount);
    std::printf("events sent            %d in %.2f s (every one answered: %s, dropped lines: %d)\n",
                eventCount, burstSeconds, answered ? "yes" : "NO", dropped.load());
    std::printf("events stored          %lld\n", lastId);
    std::printf("pages behind at end    %d (streams opened again: %d)\n", behind, reconnects);
    std::printf("slowest page, worst    %lld ms after arrival\n", worst);
    std::printf("collector peak RSS     %.1f MB\n", static_cast<double>(peakKb) / 1024.0);
    std::printf("state at end           %s\n",
                state ? state->body.substr(state->body.find("\"live_pages\"")).c_str() : "-");
    const bool met =
        answered && lastId == eventCount && behind == 0 && worst <= 1000 && peakKb < 100 * 1024;
    std::printf("%s\n", met ? "targets met" : "TARGETS MISSED");
    return met ? 0 : 1;
}
