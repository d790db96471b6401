// A second process on the keychain file in <directory>, for the file keychain's system tests:
//   keychain_writer <directory> churn <saves>: saves a large item and saves and deletes a
//     shared one over and over; killed in the middle of its save number <saves>.
//   keychain_writer <directory> save <value>: saves <value> as the store user id.
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

using namespace NorvAnalytic;

int main(int, char** argv) {
    const std::string directory = argv[1];
    const std::string mode = argv[2];
    Platform::setKeychainBackend(KeychainBackend::makeFileBackend(directory + "/keychain.sqlite"));
    if (mode == "save") {
        NorvAnalytics::saveStoreUserID(std::string(argv[3]));
        return 0;
    }
    const int saves = std::atoi(argv[3]);
    for (int iteration = 0;; ++iteration) {
        if (iteration == saves) {
            // From another thread, so that the kill lands while this one is in the save below.
            std::thread([] { ::kill(::getpid(), SIGKILL); }).detach();
        }
        // One letter, chosen by the iteration, repeated: a value torn between two saves shows.
        const std::string value(256 * 1024, static_cast<char>('a' + iteration % 26));
        bool saved = true;
        for (int shared = 0; saved && shared < 20; ++shared) {
            saved = Keychain::saveItem(value.substr(0, 4096), "shared", "exchange", nullptr);
            Keychain::deleteItemForKey("shared", "exchange", nullptr);
        }
        if (!saved || !Keychain::saveItem(value, "victim", "churn", nullptr)) {
            return 1;
        }
    }
}
