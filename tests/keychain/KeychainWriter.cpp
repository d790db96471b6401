// A second process on the keychain file in <directory>, for the file keychain's system test:
// saves a large item over and over and is killed in the middle of its save number <saves>.
//   keychain_writer <directory> <saves>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

using namespace NorvAnalytic;

int main(int, char** argv) {
    Platform::setKeychainBackend(
        KeychainBackend::makeFileBackend(std::string(argv[1]) + "/keychain.sqlite"));
    const int saves = std::atoi(argv[2]);
    for (int iteration = 0;; ++iteration) {
        if (iteration == saves) {
            // From another thread, so that the kill lands while this one is in the save below.
            std::thread([] { ::kill(::getpid(), SIGKILL); }).detach();
        }
        // One letter, chosen by the iteration, repeated: a value torn between two saves shows.
        const std::string value(256 * 1024, static_cast<char>('a' + iteration % 26));
        if (!Keychain::saveItem(value, "victim", "churn", nullptr)) {
            return 1;
        }
    }
}
