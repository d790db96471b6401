// Processes on one keychain file, for the file keychain's system tests. Exits 0 when all is well.
//   keychain_writer <file> exchange <name>: two threads each save an item of their own and a
//     "shared" one that every writer overwrites, reading both back each time.
//   keychain_writer <file> churn <saves>: saves a large item over and over on one thread and,
//     after <saves> saves, kills the whole process while that thread is in the next one.
//   keychain_writer <file> check: the churned item reads back whole.
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "keychain/FileKeychainBackend.h"

using namespace NorvAnalytic;

namespace {

constexpr std::size_t kExchangeSize = 4096;
constexpr std::size_t kChurnSize = 256 * 1024;
constexpr int kIterations = 60;

// One letter, chosen by the iteration, repeated: a value torn between two saves shows.
std::string patterned(int iteration, std::size_t size) {
    return std::string(size, static_cast<char>('a' + iteration % 26));
}

bool isWhole(const Text& value, std::size_t size) {
    return value && value->size() == size && *value == patterned((*value)[0] - 'a', size);
}

bool exchange(const std::string& writer) {
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        const std::string own = patterned(iteration, kExchangeSize);
        if (!Keychain::saveItem(own, writer, "exchange", nullptr) ||
            !Keychain::saveItem(own, "shared", "exchange", nullptr) ||
            Keychain::itemForKey(writer, "exchange", nullptr) != own ||
            !isWhole(Keychain::itemForKey("shared", "exchange", nullptr), kExchangeSize)) {
            return false;
        }
    }
    return true;
}

int churnUntilKilled(int saves) {
    std::atomic<int> done = 0;
    std::thread churner([&done] {
        for (int iteration = 0;; ++iteration) {
            if (!Keychain::saveItem(patterned(iteration, kChurnSize), "victim", "churn", nullptr)) {
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

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    Platform::setKeychainBackend(std::make_shared<FileKeychainBackend>(argv[1]));
    const std::string mode = argv[2];
    if (mode == "exchange" && argc == 4) {
        std::atomic<int> failures = 0;
        std::thread second([&] { failures += exchange(argv[3] + std::string("b")) ? 0 : 1; });
        failures += exchange(argv[3] + std::string("a")) ? 0 : 1;
        second.join();
        return failures == 0 ? 0 : 1;
    }
    if (mode == "churn" && argc == 4) {
        return churnUntilKilled(std::atoi(argv[3]));
    }
    return mode == "check" && isWhole(Keychain::itemForKey("victim", "churn", nullptr), kChurnSize)
               ? 0
               : 1;
}
