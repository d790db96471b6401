#include "ui/HeadlessApplication.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/SdkThread.h"

extern char** environ;

namespace NorvAnalytic {

namespace {

// A handler's name is one short line; anything longer is not read.
constexpr std::size_t maximumQueryOutput = 4096;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_;
};

int waitForExit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

// Starts the program with these arguments, no shell in between. The child reads nothing, its
// output goes to outputFd (or nowhere) and it starts with default signal handling.
std::optional<pid_t> spawnProgram(const std::string& program,
                                  const std::vector<std::string>& arguments, int outputFd) {
    std::vector<std::string> argvStorage{program};
    argvStorage.insert(argvStorage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argvStorage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (outputFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t noSignals;
    sigemptyset(&noSignals);
    posix_spawnattr_setsigmask(&attributes, &noSignals);
    sigset_t hostHandledSignals;
    sigemptyset(&hostHandledSignals);
    sigaddset(&hostHandledSignals, SIGPIPE);
    sigaddset(&hostHandledSignals, SIGCHLD);
    posix_spawnattr_setsigdefault(&attributes, &hostHandledSignals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = 0;
    const int result =
        ::posix_spawnp(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (result != 0) {
        return std::nullopt;
    }
    return pid;
}

// Reads what the child writes until it closes its end or the deadline passes.
bool readUntilClosed(int fd, std::chrono::steady_clock::time_point deadline, std::string& output) {
    char buffer[512];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd readable{fd, POLLIN, 0};
        const int ready = ::poll(&readable, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return true;
        }
        const std::size_t room = maximumQueryOutput - std::min(output.size(), maximumQueryOutput);
        output.append(buffer, std::min(static_cast<std::size_t>(count), room));
    }
}

// Reaps the openers we started, on one thread (norv-reaper) that runs only while one is
// unreaped and is ended at exit. An opener may live as long as the browser it starts, so the
// thread sleeps in poll() on a pidfd per opener, which turns readable when it exits; SIGCHLD is
// the host's and never used. A kernel without pidfds has the openers looked at every 100 ms.
class OpenerReaper {
public:
    static OpenerReaper& shared() {
        // Never destroyed: the exit handler ends its thread.
        static auto* reaper = new OpenerReaper();
        return *reaper;
    }

    void reap(pid_t child) {
        std::unique_lock lock(mutex_);
        children_.push_back({child, static_cast<int>(::syscall(SYS_pidfd_open, child, 0))});
        if (running_ || stopping_) {
            wake();
            return;
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        try {
            thread_ = startSdkThread("norv-reaper", [this] { run(); });
            running_ = true;
        } catch (const std::system_error&) {
            // Left a zombie until the next opener's thread reaps it.
        }
        static std::once_flag registered;
        std::call_once(registered, [] { std::atexit([] { shared().stop(); }); });
    }

private:
    struct Child {
        pid_t pid;
        // -1 without pidfds.
        int exited;
    };

    OpenerReaper() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    void wake() {
        const std::uint64_t one = 1;
        static_cast<void>(::write(wake_, &one, sizeof one));
    }

    void run() {
        std::unique_lock lock(mutex_);
        while (!stopping_ && !children_.empty()) {
            std::erase_if(children_, [](const Child& child) {
                int status = 0;
                const pid_t reaped = ::waitpid(child.pid, &status, WNOHANG);
                const bool gone = reaped == child.pid || (reaped == -1 && errno == ECHILD);
                if (gone && child.exited >= 0) {
                    ::close(child.exited);
                }
                return gone;
            });
            if (children_.empty()) {
                break;
            }
            std::vector<pollfd> descriptors{{wake_, POLLIN, 0}};
            bool everyPid = true;
            for (const Child& child : children_) {
                everyPid = everyPid && child.exited >= 0;
                if (child.exited >= 0) {
                    descriptors.push_back({child.exited, POLLIN, 0});
                }
            }
            lock.unlock();
            static_cast<void>(::poll(descriptors.data(), descriptors.size(), everyPid ? -1 : 100));
            std::uint64_t count = 0;
            while (::read(wake_, &count, sizeof count) > 0) {
            }
            lock.lock();
        }
        running_ = false;
    }

    void stop() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
            wake();
        }
        // The openers still running are reaped by init once the host has exited.
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
            thread_.join();
        }
    }

    std::mutex mutex_;
    int wake_;
    std::vector<Child> children_;
    std::thread thread_;
    bool running_ = false;
    bool stopping_ = false;
};

}  // namespace

HeadlessApplication::HeadlessApplication(std::string mimeQueryProgram, std::string openProgram,
                                         std::chrono::milliseconds queryTimeout)
    : mimeQueryProgram_(std::move(mimeQueryProgram)),
      openProgram_(std::move(openProgram)),
      queryTimeout_(queryTimeout) {}

std::shared_ptr<Window> HeadlessApplication::keyWindow() const { return nullptr; }

bool HeadlessApplication::canOpenURL(const URL& url) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        return false;
    }
    FileDescriptor readEnd(pipeFds[0]);
    FileDescriptor writeEnd(pipeFds[1]);
    const auto pid =
        spawnProgram(mimeQueryProgram_, {"query", "default", "x-scheme-handler/" + url.scheme()},
                     writeEnd.get());
    writeEnd.reset();
    if (!pid) {
        return false;
    }
    std::string output;
    const bool finished =
        readUntilClosed(readEnd.get(), std::chrono::steady_clock::now() + queryTimeout_, output);
    if (!finished) {
        // Still unreaped, so the pid cannot have passed to another process yet.
        ::kill(*pid, SIGKILL);
    }
    const int status = waitForExit(*pid);
    const bool namesHandler = std::any_of(output.begin(), output.end(),
                                          [](unsigned char c) { return std::isspace(c) == 0; });
    return finished && WIFEXITED(status) && WEXITSTATUS(status) == 0 && namesHandler;
}

bool HeadlessApplication::openURL(const URL& url) {
    const auto pid = spawnProgram(openProgram_, {url.absoluteString()}, -1);
    if (!pid) {
        return false;
    }
    OpenerReaper::shared().reap(*pid);
    return true;
}

}  // namespace NorvAnalytic
