// A second process for the keychain file tests.
//   keychain_writer <file> exchange <name> <iterations>: saves its own item and a shared one,
//     reading both back each time; exits 1 on a lost or torn value.
//   keychain_writer <file> churn <name>: saves one large item over and over and writes one
//     byte to stdout after each save, until it is killed.
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "keychain/FileKeychainBackend.h"
#include "keychain/PatternedValue.h"

using NorvAnalytic::Keychain;
using NorvAnalytic::Testing::isWholePatternedValue;
using NorvAnalytic::Testing::patternedValue;

namespace {

constexpr std::size_t kExchangeSize = 4096;
constexpr std::size_t kChurnSize = 256 * 1024;

int exchange(const std::string& name, int iterations) {
    for (int iteration = 0; iteration < iterations; ++iteration) {
        const std::string own = patternedValue(name, iteration, kExchangeSize);
        if (!Keychain::saveItem(own, name, "exchange", nullptr) ||
            !Keychain::saveItem(own, "shared", "exchange", nullptr)) {
            std::fprintf(stderr, "%s: save %d failed\n", name.c_str(), iteration);
            return 1;
        }
        if (Keychain::itemForKey(name, "exchange", nullptr) != own) {
            std::fprintf(stderr, "%s: own item %d lost\n", name.c_str(), iteration);
            return 1;
        }
        const auto shared = Keychain::itemForKey("shared", "exchange", nullptr);
        if (!shared || !isWholePatternedValue(*shared, kExchangeSize)) {
            std::fprintf(stderr, "%s: shared item torn after %d\n", name.c_str(), iteration);
            return 1;
        }
    }
    return 0;
}

int churn(const std::string& name) {
    for (int iteration = 0;; ++iteration) {
        if (!Keychain::saveItem(patternedValue(name, iteration, kChurnSize), "victim", "churn",
                                nullptr)) {
            return 1;
        }
        if (::write(STDOUT_FILENO, "+", 1) != 1) {
            return 1;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: keychain_writer <file> exchange|churn <name> [iterations]\n");
        return 2;
    }
    NorvAnalytic::Platform::setKeychainBackend(
        std::make_shared<NorvAnalytic::FileKeychainBackend>(argv[1]));
    const std::string mode = argv[2];
    if (mode == "exchange" && argc == 5) {
        return exchange(argv[3], std::stoi(argv[4]));
    }
    if (mode == "churn") {
        return churn(argv[3]);
    }
    return 2;
}
