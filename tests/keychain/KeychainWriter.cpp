// A second process on the keychain file in <directory>, for the file keychain's system test:
// saves a large item over and over on one thread and, after <saves> saves, kills the whole
// process while that thread is in the middle of the next one.
//   keychain_writer <directory> <saves>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

using namespace NorvAnalytic;

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Platform::setKeychainBackend(
        KeychainBackend::makeFileBackend(std::string(argv[1]) + "/keychain.sqlite"));
    const int saves = std::atoi(argv[2]);
    std::atomic<int> done = 0;
    std::thread churner([&done] {
        for (int iteration = 0;; ++iteration) {
            // One letter, chosen by the iteration, repeated: a value torn between two saves shows.
            const std::string value(256 * 1024, static_cast<char>('a' + iteration % 26));
            if (!Keychain::saveItem(value, "victim", "churn", nullptr)) {
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
    return 1;
}
