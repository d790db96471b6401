// A second process on the keychain file in <directory>, for the file keychain's system tests:
//   keychain_writer <directory> churn <saves>: saves a large item and saves and deletes a
//     shared one over and over; killed in the middle of its save number <saves>.
//   keychain_writer <directory> save <value>: saves <value> as the store user id.
//   keychain_writer <directory> uuid <steady-clock nanoseconds> [schema]: four threads ask for
//     the device UUID at that instant; writes their answers, a line each, to
//     <directory>/uuids-<pid>, and the UUID the process holds once the store agrees (at most
//     5 s later) to <directory>/held-<pid>. With a schema, on the Secret Service's session
//     collection.
//   keychain_writer <directory> hold <milliseconds> <uuid>: stores <uuid> as the device UUID in
//     a write transaction that it holds open that long, after creating <directory>/held.
//   keychain_writer <directory> forget [schema]: forgets the device. With a schema, on the
//     Secret Service's session collection.
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "keychain/KeychainArchive.h"
#include "keychain/SecretServiceKeychainBackend.h"

using namespace NorvAnalytic;

// The UUID this process holds once the store holds the same, or after 5 s what it holds then.
std::string heldUUID() {
    const auto start = std::chrono::steady_clock::now();
    while (NorvAnalytics::getNorvAnalyticUUID() !=
               Keychain::itemForKey("device_uuid", "NorvAnalyticDeviceUUID", nullptr) &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(5)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return NorvAnalytics::getNorvAnalyticUUID();
}

int main(int, char** argv) {
    const std::string directory = argv[1];
    const std::string mode = argv[2];
    Platform::setKeychainBackend(KeychainBackend::makeFileBackend(directory + "/keychain.sqlite"));
    if (mode == "uuid") {
        if (argv[4] != nullptr) {
            Platform::setKeychainBackend(
                std::make_shared<SecretServiceKeychainBackend>(argv[4], "session"));
        }
        Platform::setDiagnosticsSink([](DiagnosticLevel, const std::string& message) {
            std::fprintf(stderr, "%s\n", message.c_str());
        });
        const std::chrono::steady_clock::time_point start(
            std::chrono::nanoseconds(std::atoll(argv[3])));
        std::vector<std::string> answers(4);
        {
            std::vector<std::jthread> callers;
            for (auto& answer : answers) {
                callers.emplace_back([&answer, start] {
                    std::this_thread::sleep_until(start);
                    answer = NorvAnalytics::getNorvAnalyticUUID();
                });
            }
        }
        std::ofstream out(directory + "/uuids-" + std::to_string(::getpid()));
        for (const auto& answer : answers) {
            out << answer << '\n';
        }
        std::ofstream(directory + "/held-" + std::to_string(::getpid())) << heldUUID();
        return out ? 0 : 1;
    }
    if (mode == "hold") {
        const auto backend = Platform::keychainBackend();
        KeychainQuery item = Keychain::_baseQueryDictionaryForKey(
            std::string("device_uuid"), std::string("NorvAnalyticDeviceUUID"), std::nullopt);
        item.valueData = KeychainArchive::archivedData(argv[4]);
        return backend->writeTransaction([&] {
            const OSStatus added = backend->add(item);
            std::ofstream(directory + "/held") << "held";
            std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[3])));
            return added;
        }) == errSecSuccess
                   ? 0
                   : 1;
    }
    if (mode == "forget") {
        if (argv[3] != nullptr) {
            Platform::setKeychainBackend(
                std::make_shared<SecretServiceKeychainBackend>(argv[3], "session"));
        }
        NorvAnalytics::forgetDevice();
        return 0;
    }
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
