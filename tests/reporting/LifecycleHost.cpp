// A host for what only a process of its own can show: what a forked child sends, events sent
// from exit handlers and thread_local destructors, how the SDK's threads look from outside, and
// what forgetting the device leaves on disk.
// usage: reporting_lifecycle_host fork|exit-handlers|threads|forget URL
#include <NorvAnalytic/NorvAnalytic.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
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
    start(argv[2]);
    if (mode == "fork") {
        return forkedChild();
    }
    if (mode == "exit-handlers") {
        return exitHandlers();
    }
    if (mode == "forget") {
        return forget();
    }
    return mode == "threads" ? threads() : 2;
}
