#include "delivery/EventIds.h"

#include <pthread.h>
#include <sys/random.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>

namespace NorvAnalytic {

namespace {

std::atomic<bool> keysOn{false};
std::atomic<std::uint64_t> counter{0};

void fillRandomHex(std::array<char, 32>& hex) {
    std::array<unsigned char, 16> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        }
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        hex[2 * index] = kDigits[bytes[index] >> 4];
        hex[2 * index + 1] = kDigits[bytes[index] & 0xf];
    }
}

std::array<char, 32>& prefix() {
    static auto* made = [] {
        auto* hex = new std::array<char, 32>;
        fillRandomHex(*hex);
        // A forked child would repeat its parent's keys: it makes a prefix of its own.
        pthread_atfork(nullptr, nullptr, [] {
            fillRandomHex(prefix());
        });
        return hex;
    }();
    return *made;
}

}  // namespace

void EventIds::setEnabled(bool enabled) noexcept { keysOn.store(enabled, std::memory_order_relaxed); }

bool EventIds::enabled() noexcept { return keysOn.load(std::memory_order_relaxed); }

std::string EventIds::next() {
    if (!enabled()) {
        return {};
    }
    const std::array<char, 32>& hex = prefix();
    std::array<char, 17> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                   counter.fetch_add(1, std::memory_order_relaxed) + 1, 16)
                         .ptr;
    std::string key;
    key.reserve(hex.size() + 1 + static_cast<std::size_t>(end - digits.data()));
    key.append(hex.data(), hex.size()).append(1, '-').append(digits.data(), end);
    return key;
}

std::string EventIds::headerValue(const std::string& key) { return "\"" + key + "\""; }

}  // namespace NorvAnalytic
