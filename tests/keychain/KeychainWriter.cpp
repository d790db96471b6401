// A process on the keychain file in <directory>, for the file keychain's system test.
//   keychain_writer <directory> exchange <name>: two threads each save an item of their own and
//     a "shared" one that every writer overwrites, reading both back each time; exits 0 if all
//     read back whole.
//   keychain_writer <directory> churn <saves>: saves a large item over and over on one thread
//     and, after <saves> saves, kills the whole process while that thread is in the next one.
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

using namespace NorvAnalytic;

namespace {

// One letter, chosen by the iteration, repeated: a value torn between two saves shows.
std::string patterned(int iteration, std::size_t size) {
    return std::string(size, static_cast<char>('a' + iteration % 26));
}

bool exchange(const std::string& writer) {
    for (int iteration = 0; iteration < 60; ++iteration) {
        const std::string own = patterned(iteration, 4096);
        if (!Keychain::saveItem(own, writer, "exchange", nullptr) ||
            !Keychain::saveItem(own, "shared", "exchange", nullptr) ||
            Keychain::itemForKey(writer, "exchange", nullptr) != own) {
            return false;
        }
        const Text shared = Keychain::itemForKey("shared", "exchange", nullptr);
        if (!shared || *shared != patterned(shared->front() - 'a', 4096)) {
            return false;
        }
    }
    return true;
}

void churnUntilKilled(int saves) {
    std::atomic<int> done = 0;
    std::thread churner([&done] {
        for (int iteration = 0;; ++iteration) {
            if (!Keychain::saveItem(patterned(iteration, 256 * 1024), "victim", "churn", nullptr)) {
                std::_Exit(1);
            }
            done.fetch_add(1);
            done.notify_one();
        }
    });
    for (int seen = done.load(); seen < saves; seen = done.load()) {
        done.wait(seen);
    }
    ::kill(::getpid(), SIGKILL);
    churner.join();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    Platform::setKeychainBackend(
        KeychainBackend::makeFileBackend(std::string(argv[1]) + "/keychain.sqlite"));
    const std::string mode = argv[2];
    if (mode == "churn") {
        churnUntilKilled(std::atoi(argv[3]));
        return 1;
    }
    std::atomic<int> failures = 0;
    std::thread second([&] { failures += exchange(argv[3] + std::string("b")) ? 0 : 1; });
    failures += exchange(argv[3] + std::string("a")) ? 0 : 1;
    second.join();
    return failures == 0 ? 0 : 1;
}
