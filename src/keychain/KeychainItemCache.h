#pragma once

#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/Types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace NorvAnalytic {

// The few items the SDK reads on every event, read from the store once and then from memory,
// for stores that allow it (KeychainBackend::identityRefreshInterval). Writes through Keychain
// in this process reach it in the order they commit. A thread of its own (norv-keychain) makes
// the first read of each item, for which a caller waits 100 ms at most, finishes the inserts a
// caller could not wait for, and reads every item again when another process may have changed
// the store: when the store says so (StoreChangeWatch), else at the store's interval. It sleeps
// while none of that is due. Its lock is never held while the store is read or written.
class KeychainItemCache {
public:
    // Pending: an insert not landed yet; the value is the candidate this process uses meanwhile.
    enum class State { Stored, Missing, Unreadable, Failed, Pending };
    struct Item {
        State state = State::Failed;
        Text value;
    };

    static KeychainItemCache& shared();

    // How long a caller waits for a first read of an item, or for its first insert.
    static constexpr std::chrono::milliseconds kStoreWait{100};

    // The item (no access group), from memory once it has been read. A first read the store
    // has not answered within kStoreWait answers Failed; it goes on, and its answer is kept.
    Item item(const std::string& key, const std::string& service);
    // Stores candidate unless a readable item is there (an unreadable one is replaced), in one
    // write no other writer comes between, on the cache's thread. Waits up to `wait` for it and
    // answers what the store holds afterwards; when the write has not landed by then, answers
    // Pending with this process's candidate and goes on trying. Whatever that write finds
    // stored is what this process holds from then on. Always answers a value.
    Item insertIfAbsent(const std::string& key, const std::string& service,
                        const std::string& candidate, std::chrono::milliseconds wait);

    // Held across every write through Keychain, so that this cache learns of writes in the
    // order they commit.
    std::mutex& writeLock() { return *writeLock_; }
    // After a write through Keychain on backend: what the item (no access group) now is. With
    // keep, an item not cached yet is cached from here on; without, an insert of the item still
    // waiting for the store is dropped.
    void wrote(const KeychainBackend& backend, const std::string& key, const std::string& service,
               const Text& stored, bool keep = false);
    // After a write whose outcome for the item is unknown: the next read goes to the store.
    void forget(const KeychainBackend& backend, const std::string& key, const std::string& service);

private:
    using Clock = std::chrono::steady_clock;
    using Key = std::pair<std::string, std::string>;
    struct Entry {
        Item item;
        bool known = true;
        // Counts writes through Keychain, so that a read that raced one is not kept.
        std::uint64_t version = 0;
    };
    struct PendingRead {
        bool started = false;
        bool done = false;
        Item stored;
    };
    struct PendingInsert {
        std::weak_ptr<KeychainBackend> backend;
        std::string candidate;
        Clock::time_point due;
        std::chrono::milliseconds backoff{0};
        bool done = false;
        Item stored;
    };

    KeychainItemCache();
    static Item read(KeychainBackend& backend, const std::string& key, const std::string& service);
    Item storeIfAbsent(KeychainBackend& backend, const std::string& key, const std::string& service,
                       const std::string& candidate);
    // Under mutex_: makes backend the one cached, dropping what belonged to another.
    void useBackend(const std::shared_ptr<KeychainBackend>& backend);
    // Under mutex_: false when no thread can run (the process exits, or none could be had).
    bool ensureThread();
    void run();
    // On the thread, under mutex_ (unlocked while the store is read): a first read asked for.
    void firstRead(std::unique_lock<std::mutex>& lock, const Key& key,
                   const std::shared_ptr<PendingRead>& request);
    void attempt(const Key& key, const std::shared_ptr<PendingInsert>& insert);
    void refresh();
    // Wakes the thread from its sleep; any thread, any lock.
    void wakeThread();
    void stopAtExit();
    void abandonAfterFork();

    // Both replaced, never freed, in a forked child, where a vanished thread may hold them.
    std::mutex* writeLock_;
    std::condition_variable* changed_;
    std::mutex mutex_;
    std::weak_ptr<KeychainBackend> backend_;
    std::optional<std::chrono::milliseconds> interval_;
    std::map<Key, Entry> entries_;
    std::map<Key, std::shared_ptr<PendingInsert>> pending_;
    std::map<Key, std::shared_ptr<PendingRead>> reads_;
    // An eventfd the thread sleeps on, beside the store's change descriptor.
    int wakeDescriptor_;
    // Counts every write through Keychain, for reads of items not cached yet.
    std::uint64_t writes_ = 0;
    // Let go of, never joined, in a forked child: the thread is the parent's.
    std::optional<std::thread> thread_;
    bool stopping_ = false;
};

}  // namespace NorvAnalytic
