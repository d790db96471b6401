#include <NorvAnalytic/CurlHttpClient.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ResidentMemory.h"

// Runs the SDK's HTTP client, through its public API only, against each badly behaved server
// of bench/hostile-servers.py, then against a good one with the same client and a fresh one,
// and prints what came back, how much memory it took and how long the client took to go away.
// usage: hostile_servers_bench path/to/hostile-servers.py [mode...]
namespace {

using Clock = std::chrono::steady_clock;
using NorvAnalytic::CurlHttpClient;
using NorvAnalytic::HttpResponse;

// Sent in waves, each once the one before has completed: one alone, so that the next find a
// connection the server kept open; two, which arrive together on it; then many at once.
constexpr int kHostileWaves[] = {1, 2, 13};
constexpr int kGoodRequests = 50;
// Sent just before the client is destroyed, so that it goes with requests in flight.
constexpr int kInFlightRequests = 4;
constexpr auto kHostileWait = std::chrono::seconds(5);
constexpr auto kGoodWait = std::chrono::seconds(20);

double milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

std::string number(long value) {
    char digits[24];
    return std::string(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

// One server of the script, in a child process, on the port it printed.
class ServerProcess {
public:
    ServerProcess(const std::string& script, const std::string& mode) {
        int out[2];
        if (pipe(out) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::string python = "python3";
        std::vector<char*> argv{python.data(), const_cast<char*>(script.c_str()),
                                const_cast<char*>(mode.c_str()), nullptr};
        if (posix_spawnp(&pid_, "python3", &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        // The port's line may come in more than one write: the script dies if its pipe closes.
        std::string line;
        char byte = 0;
        while (line.size() < 16 && read(out[0], &byte, 1) == 1 && byte != '\n') {
            line += byte;
        }
        close(out[0]);
        std::from_chars(line.data(), line.data() + line.size(), port_);
    }
    ~ServerProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    std::string url() const { return "http://127.0.0.1:" + number(port_) + "/collect"; }
    bool running() const { return pid_ > 0 && port_ > 0; }

private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// What the completions of a batch of requests said, summarised by kind.
// Held by its completions too, so that one run late or twice is seen, not a crash.
class Tally : public std::enable_shared_from_this<Tally> {
public:
    // Sends one request whose body names it, so an echoing server's answer shows whose it is.
    void send(NorvAnalytic::HttpClient& client, const std::string& url, const std::string& tag) {
        char serial[8];
        std::snprintf(serial, sizeof serial, "%05d", sent_++);
        std::string body = tag + "-" + serial;
        client.send({"POST", url, body},
                    [self = shared_from_this(), body](std::optional<std::string> data,
                                                      std::optional<HttpResponse> response,
                                                      std::optional<NorvAnalytic::Error> error) {
                        self->record(body, data, response, error);
                    });
    }

    // Waits until every request sent so far has completed; false after the timeout.
    bool waitForAll(Clock::duration timeout) {
        std::unique_lock lock(mutex_);
        return done_.wait_for(lock, timeout, [this] { return completed_ == sent_; });
    }

    int sent() const { return sent_; }
    int completed() {
        std::lock_guard lock(mutex_);
        return completed_;
    }
    int ownAnswers() {
        std::lock_guard lock(mutex_);
        return ownAnswers_;
    }
    int wrongAnswers() {
        std::lock_guard lock(mutex_);
        return wrongAnswers_;
    }
    // Completions that ran for a request that had completed already.
    int repeated() {
        std::lock_guard lock(mutex_);
        return repeated_;
    }
    std::string summary() {
        std::lock_guard lock(mutex_);
        std::string text;
        for (const auto& [kind, count] : kinds_) {
            text += (text.empty() ? "" : "; ") + number(count) + "x " + kind;
        }
        return text;
    }

private:
    void record(const std::string& body, const std::optional<std::string>& data,
                const std::optional<HttpResponse>& response,
                const std::optional<NorvAnalytic::Error>& error) {
        std::string kind;
        bool own = false;
        bool wrong = false;
        if (!response) {
            kind = "error \"" + (error ? error->localizedDescription.value_or("") : "(none)").substr(0, 70) + "\"";
        } else {
            const std::string answer = data.value_or("");
            own = answer.find(body) != std::string::npos;
            // Another request's body: an answer that landed on the wrong request.
            wrong = !own && answer.find(body.substr(0, body.find('-') + 1)) != std::string::npos;
            kind = "HTTP " + number(response->statusCode) +
                   (own && answer == body ? " own body"
                    : own                 ? " own body in " + number(long(answer.size())) + " B"
                    : wrong               ? " ANOTHER REQUEST'S BODY"
                    : answer.empty()      ? " empty"
                                          : " " + number(long(answer.size())) + " B");
        }
        std::lock_guard lock(mutex_);
        if (!seen_.insert(body).second) {
            ++repeated_;
            ++kinds_["REPEATED COMPLETION (" + kind + ")"];
            return;
        }
        ++kinds_[kind];
        ownAnswers_ += own ? 1 : 0;
        wrongAnswers_ += wrong ? 1 : 0;
        if (++completed_ == sent_) {
            done_.notify_all();
        }
    }

    std::atomic<int> sent_{0};
    std::mutex mutex_;
    std::condition_variable done_;
    int completed_ = 0;
    int ownAnswers_ = 0;
    int wrongAnswers_ = 0;
    int repeated_ = 0;
    std::set<std::string> seen_;
    std::map<std::string, int> kinds_;
};

// Sends to a good server and waits for the answers.
std::shared_ptr<Tally> goodRun(NorvAnalytic::HttpClient& client, const ServerProcess& good,
                               const char* tag) {
    auto tally = std::make_shared<Tally>();
    for (int index = 0; index < kGoodRequests; ++index) {
        tally->send(client, good.url(), tag);
    }
    tally->waitForAll(kGoodWait);
    return tally;
}

// Whether each request of a good run got its own answer, once; called once its client is gone.
std::string verdict(Tally& tally, const char* tag) {
    return std::string(tag) + " " + number(tally.ownAnswers()) + "/" + number(kGoodRequests) +
           (tally.ownAnswers() == kGoodRequests && tally.wrongAnswers() == 0 &&
                    tally.repeated() == 0
                ? " ok"
                : " FAILED (" + tally.summary() + ")");
}

// The high-water mark of resident memory starts again from what is resident now.
void resetPeakResident() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

bool runAgainst(const std::string& script, const std::string& mode, const ServerProcess& good) {
    ServerProcess hostile(script, mode);
    if (!hostile.running()) {
        std::printf("%-11s could not start the server\n", mode.c_str());
        return false;
    }
    resetPeakResident();
    const double residentBefore = NorvAnalytic::Bench::residentKilobytes();
    auto client = std::make_unique<CurlHttpClient>();
    auto tallyHeld = std::make_shared<Tally>();
    Tally& tally = *tallyHeld;
    const Clock::time_point start = Clock::now();
    bool allCompleted = true;
    for (const int wave : kHostileWaves) {
        for (int index = 0; index < wave; ++index) {
            tally.send(*client, hostile.url(), "hostile");
        }
        // A negative time-out makes the wait fail with EINVAL here, so it stops at zero.
        allCompleted = tally.waitForAll(
            std::max(Clock::duration::zero(), kHostileWait - (Clock::now() - start)));
    }
    const double completionMs = milliseconds(Clock::now() - start);
    const int completedBeforeGood = tally.completed();

    const std::shared_ptr<Tally> sameTally = goodRun(*client, good, "same");
    for (int index = 0; index < kInFlightRequests; ++index) {
        tally.send(*client, hostile.url(), "hostile");
    }
    const int inFlight = tally.sent() - tally.completed();
    const Clock::time_point destroying = Clock::now();
    client.reset();
    const double destroyMs = milliseconds(Clock::now() - destroying);
    const bool everyCompletionRan = tally.completed() == tally.sent() && tally.repeated() == 0;
    const double peakDeltaMb = std::max(
        0.0, (NorvAnalytic::Bench::peakResidentKilobytes() - residentBefore) / 1024.0);

    auto fresh = std::make_unique<CurlHttpClient>();
    const std::shared_ptr<Tally> freshTally = goodRun(*fresh, good, "fresh");
    fresh.reset();
    const std::string sameClient = verdict(*sameTally, "same");
    const std::string freshClient = verdict(*freshTally, "fresh");

    // Only a server that never finishes an answer may keep requests past the run's time.
    const bool mayHold = mode == "silent" || mode == "slowloris";
    const bool ok = (allCompleted || mayHold) && peakDeltaMb < 100 && destroyMs < 1000 &&
                    everyCompletionRan &&
                    tally.wrongAnswers() == 0 && sameClient.ends_with(" ok") &&
                    freshClient.ends_with(" ok");
    std::printf("%-11s %s sent %d, %d completed %s %.0f ms; peak RSS +%.1f MB; destroyed with "
                "%d in flight in %.1f ms%s; good server after: %s, %s\n  completions: %s\n",
                mode.c_str(), ok ? "PASS" : "FAIL", tally.sent(), completedBeforeGood,
                allCompleted ? "all in" : "of the first ones, cut after", completionMs,
                peakDeltaMb, inFlight, destroyMs,
                everyCompletionRan ? "" : " (COMPLETIONS MISSING OR REPEATED)", sameClient.c_str(),
                freshClient.c_str(), tally.summary().c_str());
    std::fflush(stdout);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s path/to/hostile-servers.py [mode...]\n", argv[0]);
        return 2;
    }
    const std::string script = argv[1];
    std::vector<std::string> modes(argv + 2, argv + argc);
    if (modes.empty()) {
        modes = {"huge",     "chunked",   "redirectbig", "silent",  "reset",
                 "garbage",  "deepjson",  "nul",         "redirect", "slowloris",
                 "http10",   "headers",   "fourgig",     "pipedrop"};
    }
    const ServerProcess good(script, "good");
    if (!good.running()) {
        std::fprintf(stderr, "could not start the good server\n");
        return 2;
    }
    // Once first, so that what any client costs once per process is not put on the first server.
    {
        CurlHttpClient warmUp;
        goodRun(warmUp, good, "warm-up");
    }
    bool allPassed = true;
    for (const std::string& mode : modes) {
        allPassed = runAgainst(script, mode, good) && allPassed;
    }
    return allPassed ? 0 : 1;
}
