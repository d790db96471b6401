#pragma once

#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace NorvAnalytic {

// The few items the SDK reads on every event, read from the store once and then from memory,
// for stores that allow it (KeychainBackend::identityRefreshInterval). Writes through Keychain
// in this process reach it in the order they commit; a thread of its own re-reads every item
// at the store's interval, so that other processes' writes show up. Its lock is never held
// while the store is read or written.
class KeychainItemCache {
public:
    enum class State { Stored, Missing, Unreadable, Failed };
    struct Item {
        State state = State::Failed;
        Text value;
    };

    static KeychainItemCache& shared();

    // The item (no access group), from memory once it has been read.
    Item item(const std::string& key, const std::string& service);
    // Stores candidate unless a readable item is there (an unreadable one is replaced), in one
    // write no other writer comes between, and answers what the store holds afterwards.
    Item insertIfAbsent(const std::string& key, const std::string& service,
                        const std::string& candidate);

    // Held across every write through Keychain, so that this cache learns of writes in the
    // order they commit.
    std::mutex& writeLock() { return writeLock_; }
    // After a write through Keychain on backend: what the item (no access group) now is.
    void wrote(const KeychainBackend& backend, const std::string& key, const std::string& service,
               const Text& stored);
    // After a write whose outcome for the item is unknown: the next read goes to the store.
    void forget(const KeychainBackend& backend, const std::string& key, const std::string& service);

private:
    using Key = std::pair<std::string, std::string>;
    struct Entry {
        Item item;
        bool known = true;
        // Counts writes through Keychain, so that a read that raced one is not kept.
        std::uint64_t version = 0;
    };

    static Item read(KeychainBackend& backend, const std::string& key, const std::string& service);
    bool isCached(const KeychainBackend& backend) const;
    void refreshForever();

    std::mutex writeLock_;
    std::mutex mutex_;
    std::weak_ptr<KeychainBackend> backend_;
    std::chrono::milliseconds interval_{0};
    std::map<Key, Entry> entries_;
    // Counts every write through Keychain, for reads of items not cached yet.
    std::uint64_t writes_ = 0;
    bool refreshing_ = false;
};

}  // namespace NorvAnalytic
