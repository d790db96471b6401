// A host for what only a process of its own can show: what a forked child sends, events sent
// from exit handlers and thread_local destructors, how the SDK's threads look from outside,
// what forgetting the device leaves on disk, and what a killed host leaves to the next one.
// usage: reporting_lifecycle_host fork|exit-handlers|threads|forget|persist-record|
//        persist-resume|persist-pair|persist-keys|persist-full|queue-off|no-consent|idle URL
//        [prefix]
#include <NorvAnalytic/NorvAnalytic.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <iostream>
#include <string>
#include <thread>

#include "support/ThreadList.h"

namespace {

using NorvAnalytic::NorvAnalytics;

constexpr auto kFlushLimit = std::chrono::seconds(10);

void start(const std::string& url) {
    NorvAnalytics::initWithKey(std::string("lifecycle-key"));
    NorvAnalytics::sharedController().setUrlString(url);
}

void sendPages(const std::string& prefix, int count) {
    for (int index = 0; index < count; ++index) {
        NorvAnalytics::sendEventWithPageName(prefix + std::to_string(index));
    }
}

// The parent's events are on their way when it forks; the child sends its own and flushes.
int forkedChild() {
    sendPages("parent-", 5);
    const pid_t child = ::fork();
    if (child == 0) {
        sendPages("child-", 10);
        ::_exit(NorvAnalytics::flush(kFlushLimit) ? 0 : 3);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const bool parentFlushed = NorvAnalytics::flush(kFlushLimit);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && parentFlushed ? 0 : 4;
}

struct SendsWhenDestroyed {
    ~SendsWhenDestroyed() { NorvAnalytics::sendEventWithPageName("thread-local-destructor"); }
};

int exitHandlers() {
    std::thread([] {
        thread_local SendsWhenDestroyed sender;
        static_cast<void>(&sender);
        // Long enough that anything kept per thread for the texts has to grow.
        NorvAnalytics::sendEventWithPageName("first-" + std::string(5000, 'x'));
    }).join();
    std::atexit([] {
        NorvAnalytics::sendEventWithPageName("atexit");
        NorvAnalytics::flush(kFlushLimit);
    });
    return 0;
}

// Every thread but main is ours: named norv-… and blocking the host's signals.
int threads() {
    NorvAnalytics::sendAppOpenEvent();
    sendPages("page-", 3);
    if (!NorvAnalytics::flush(kFlushLimit)) {
        return 5;
    }
    int failures = 0;
    for (const auto& thread : NorvAnalytic::Testing::threadList()) {
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD}) {
            if (thread.id != ::getpid() &&
                (!thread.name.starts_with("norv-") || !thread.blocks(signal))) {
                std::cerr << "thread \"" << thread.name << "\" takes signal " << signal << "\n";
                ++failures;
            }
        }
    }
    return failures == 0 ? 0 : 6;
}

// Whether our threads slept through three seconds (one wake-up allowed), after the event was
// sent and flushed and the given time passed; says how often they woke when they did not.
bool sleptAfter(const std::string& page, std::chrono::milliseconds wait) {
    NorvAnalytics::sendEventWithPageName(page);
    const bool flushed = NorvAnalytics::flush(kFlushLimit);
    std::this_thread::sleep_for(wait);
    const auto wakeUps = NorvAnalytic::Testing::wakeUpsDuring(
        std::chrono::seconds(3), [](const std::string& name) { return name.starts_with("norv-"); });
    std::cerr << wakeUps << " wake-ups after " << page << "\n";
    return flushed && wakeUps <= 1;
}

// Idle with nothing saved, our threads sleep; a refused event is resent on the next tick (the
// one after finds nothing), and then they sleep again.
int idle() {
    NorvAnalytics::sendAppOpenEvent();
    return sleptAfter("page-0", std::chrono::milliseconds(1500)) &&
                   sleptAfter("refuse-me", std::chrono::milliseconds(2500))
               ? 0
               : 10;
}

// With the queue on: 10,000 events, then a kill -9 once all of them are written down, while the
// server holds its answers (or its port is closed): whatever is on the wire then stays there.
int persistAndDie() {
    constexpr int kEvents = 10'000;
    sendPages("page-", kEvents);
    const std::string file = std::string(std::getenv("XDG_DATA_HOME")) + "/NorvAnalytic/queue.sqlite";
    for (int rows = 0, tries = 0; rows < kEvents && tries < 3000; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        // Opened anew each time: the file may not be there yet.
        sqlite3* queue = nullptr;
        sqlite3_stmt* count = nullptr;
        if (sqlite3_open_v2(file.c_str(), &queue, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
            sqlite3_prepare_v2(queue, "SELECT count(*) FROM events", -1, &count, nullptr) == SQLITE_OK &&
            sqlite3_step(count) == SQLITE_ROW) {
            rows = sqlite3_column_int(count, 0);
        }
        sqlite3_finalize(count);
        sqlite3_close(queue);
    }
    ::kill(::getpid(), SIGKILL);
    return 8;
}

// Nothing of its own to send: what an earlier process of the host left in the file.
int resume() { return NorvAnalytics::flush(std::chrono::seconds(60)) ? 0 : 7; }

// Thirty events of its own, waited for, beside another process of the host.
int persistPair(const std::string& prefix) {
    sendPages(prefix, 30);
    return NorvAnalytics::flush(std::chrono::seconds(60)) ? 0 : 7;
}

// Events the server refuses are kept, with their keys, for the next process to resend.
int persistKeys() {
    NorvAnalytics::setIdempotencyKeys(true);
    sendPages("keyed-", 3);
    return NorvAnalytics::flush(kFlushLimit) ? 0 : 7;
}

// Whatever a full disk refuses is delivered from memory, or dropped, counted and flushed false.
int persistFull() {
    sendPages("full-", 3000);
    const bool flushed = NorvAnalytics::flush(std::chrono::seconds(60));
    const bool dropped = NorvAnalytics::droppedEventCount() > 0;
    return flushed != dropped ? 0 : 11;
}

int withoutConsent() {
    sendPages("page-", 1'000);
    NorvAnalytics::flush(kFlushLimit);
    return NorvAnalytics::discardedWithoutConsentCount() == 1'000 ? 0 : 9;
}

// One event before the device is forgotten and one after, each delivered before the next step.
int forget() {
    NorvAnalytics::sendEventWithPageName("before-forget");
    if (!NorvAnalytics::flush(kFlushLimit)) {
        return 5;
    }
    NorvAnalytics::forgetDevice();
    NorvAnalytics::sendEventWithPageName("after-forget");
    return NorvAnalytics::flush(kFlushLimit) ? 0 : 5;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    const std::string mode = argv[1];
    NorvAnalytics::setPersistentQueue(mode.starts_with("persist") || mode == "forget");
    NorvAnalytics::setCollectionAllowed(mode != "no-consent");
    start(argv[2]);
    const std::string prefix = argc > 3 ? argv[3] : "pair-";
    const std::map<std::string, std::function<int()>> modes = {
        {"persist-record", persistAndDie}, {"persist-resume", resume}, {"queue-off", resume},
        {"persist-pair", [&] { return persistPair(prefix); }}, {"persist-keys", persistKeys},
        {"persist-full", persistFull}, {"no-consent", withoutConsent}, {"fork", forkedChild},
        {"exit-handlers", exitHandlers}, {"forget", forget}, {"idle", idle}, {"threads", threads}};
    const auto found = modes.find(mode);
    return found == modes.end() ? 2 : found->second();
}
