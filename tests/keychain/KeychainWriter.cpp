// A second process on the keychain file in <directory>, for the keychain's system tests; on the
// Secret Service's session collection instead when KEYCHAIN_WRITER_SCHEMA names a schema.
//   keychain_writer <directory> churn <saves>: saves a large item and saves and deletes a
//     shared one over and over; killed in the middle of its save number <saves>.
//   keychain_writer <directory> uuid <steady-clock nanoseconds>: four threads ask for the device
//     UUID at that instant; writes their answers, a line each, to <directory>/uuids-<pid>, and
//     the UUID the process holds once the store agrees (at most 5 s later) to
//     <directory>/held-<pid>.
//   keychain_writer <directory> forget: forgets the device.
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
    const char* schema = std::getenv("KEYCHAIN_WRITER_SCHEMA");
    Platform::setKeychainBackend(
        schema != nullptr
            ? std::shared_ptr<KeychainBackend>(
                  std::make_shared<SecretServiceKeychainBackend>(schema, "session"))
            : KeychainBackend::makeFileBackend(directory + "/keychain.sqlite"));
    if (mode == "uuid") {
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
    if (mode == "forget") {
        NorvAnalytics::forgetDevice();
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
