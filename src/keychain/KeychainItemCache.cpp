#include "keychain/KeychainItemCache.h"

#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "keychain/KeychainArchive.h"
#include "keychain/StoreChangeWatch.h"
#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

bool isRace(OSStatus status) {
    return status == errSecDuplicateItem || status == errSecItemNotFound;
}

// A store that cannot take the write now is tried again, less often the longer it refuses.
constexpr std::chrono::milliseconds kFirstRetry{100};
constexpr std::chrono::milliseconds kLongestRetry{30'000};

// Another process's commit shows as a burst of writes to the store's files: the items are read
// once the burst has settled, and once more a little later, in case the commit became visible
// only after the first read.
constexpr std::chrono::milliseconds kSettle{20};
constexpr std::chrono::milliseconds kConfirm{250};

int newWakeDescriptor() { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

void drain(int descriptor) {
    std::uint64_t count = 0;
    while (::read(descriptor, &count, sizeof count) > 0) {
    }
}

}  // namespace

KeychainItemCache& KeychainItemCache::shared() {
    // Never destroyed: its thread may run until the exit handlers end it.
    static auto* cache = new KeychainItemCache();
    return *cache;
}

KeychainItemCache::KeychainItemCache()
    : writeLock_(new std::mutex()),
      changed_(new std::condition_variable()),
      wakeDescriptor_(newWakeDescriptor()) {
    pthread_atfork([] { shared().mutex_.lock(); }, [] { shared().mutex_.unlock(); },
                   [] {
                       shared().abandonAfterFork();
                       shared().mutex_.unlock();
                   });
}

void KeychainItemCache::abandonAfterFork() {
    writeLock_ = new std::mutex();
    changed_ = new std::condition_variable();
    // The parent's thread sleeps on the inherited one: the child wakes only its own.
    ::close(wakeDescriptor_);
    wakeDescriptor_ = newWakeDescriptor();
    // Asked for by the parent's callers, whom the child does not have.
    reads_.clear();
    // The thread is started again by the child's first call that needs it.
    if (thread_) {
        abandonParentsThread(*thread_);
        thread_.reset();
    }
    for (auto& [key, insert] : pending_) {
        insert->due = Clock::now();
    }
}

KeychainItemCache::Item KeychainItemCache::read(KeychainBackend& backend, const std::string& key,
                                                const std::string& service) {
    KeychainItemAttributes attributes;
    const OSStatus status = backend.copyMatching(
        Keychain::_baseQueryDictionaryForKey(key, service, std::nullopt), &attributes);
    if (status == errSecItemNotFound) {
        return {State::Missing, std::nullopt};
    }
    if (status != errSecSuccess) {
        return {State::Failed, std::nullopt};
    }
    try {
        return {State::Stored, KeychainArchive::unarchiveItem(attributes.valueData)};
    } catch (const KeychainArchive::DecodingError&) {
        return {State::Unreadable, std::nullopt};
    }
}

void KeychainItemCache::useBackend(const std::shared_ptr<KeychainBackend>& backend) {
    if (backend_.lock() == backend) {
        return;
    }
    backend_ = backend;
    interval_ = backend->identityRefreshInterval();
    entries_.clear();
    // Inserts and reads meant for another store are dropped; their waiters run out of time.
    pending_.clear();
    reads_.clear();
    // The thread lets go of the old store and watches the new one.
    wakeThread();
}

void KeychainItemCache::wakeThread() {
    const std::uint64_t one = 1;
    static_cast<void>(::write(wakeDescriptor_, &one, sizeof one));
}

bool KeychainItemCache::ensureThread() {
    if (thread_) {
        return true;
    }
    if (stopping_) {
        return false;
    }
    try {
        thread_ = startSdkThread("norv-keychain", [this] { run(); });
    } catch (const std::system_error&) {
        return false;
    }
    static std::once_flag registered;
    std::call_once(registered, [] { std::atexit([] { shared().stopAtExit(); }); });
    return true;
}

void KeychainItemCache::stopAtExit() {
    std::optional<std::thread> thread;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        std::swap(thread, thread_);
    }
    wakeThread();
    changed_->notify_all();
    if (thread && thread->get_id() != std::this_thread::get_id()) {
        thread->join();
    } else if (thread) {
        // exit() called from a host callback on this very thread: it ends with the process.
        thread->detach();
    }
}

KeychainItemCache::Item KeychainItemCache::item(const std::string& key,
                                                const std::string& service) {
    const std::shared_ptr<KeychainBackend> backend = Platform::keychainBackend();
    std::unique_lock lock(mutex_);
    useBackend(backend);
    if (const auto found = pending_.find({key, service}); found != pending_.end()) {
        return {State::Pending, found->second->candidate};
    }
    // A host's store is read on every call; so is any while the process exits.
    // Also where a forked child's first call starts the thread again.
    if (!interval_ || !ensureThread()) {
        lock.unlock();
        return read(*backend, key, service);
    }
    const auto found = entries_.find({key, service});
    if (found != entries_.end() && found->second.known) {
        return found->second.item;
    }
    // The first read of an item, or the first after a write whose outcome was unknown.
    auto& request = reads_[{key, service}];
    if (!request) {
        request = std::make_shared<PendingRead>();
        wakeThread();
    }
    const std::shared_ptr<PendingRead> waited = request;
    changed_->wait_for(lock, kStoreWait, [&] { return waited->done; });
    return waited->done ? waited->stored : Item{State::Failed, std::nullopt};
}

void KeychainItemCache::firstRead(std::unique_lock<std::mutex>& lock, const Key& key,
                                  const std::shared_ptr<PendingRead>& request) {
    const std::shared_ptr<KeychainBackend> backend = backend_.lock();
    request->started = true;
    const std::uint64_t writesBefore = writes_;
    const auto before = entries_.find(key);
    const std::uint64_t versionBefore = before != entries_.end() ? before->second.version : 0;
    lock.unlock();
    Item stored;
    if (backend) {
        try {
            stored = read(*backend, key.first, key.second);
        } catch (...) {
            // A host's store that throws is a store that failed this time.
        }
    }
    lock.lock();
    // A failed read is not kept: the next call asks the store again.
    if (backend && backend_.lock() == backend && stored.state != State::Failed) {
        const auto found = entries_.find(key);
        if (found == entries_.end() && writes_ == writesBefore) {
            entries_.emplace(key, Entry{stored, true, 0});
        } else if (found != entries_.end() && found->second.version == versionBefore) {
            found->second.item = stored;
            found->second.known = true;
        }
    }
    request->done = true;
    request->stored = stored;
    if (const auto found = reads_.find(key); found != reads_.end() && found->second == request) {
        reads_.erase(found);
    }
    changed_->notify_all();
}

KeychainItemCache::Item KeychainItemCache::insertIfAbsent(const std::string& key,
                                                          const std::string& service,
                                                          const std::string& candidate,
                                                          std::chrono::milliseconds wait) {
    const std::shared_ptr<KeychainBackend> backend = Platform::keychainBackend();
    std::unique_lock lock(mutex_);
    useBackend(backend);
    const Key itemKey{key, service};
    if (const auto found = entries_.find(itemKey); found != entries_.end() && found->second.known &&
                                                   found->second.item.state == State::Stored) {
        return found->second.item;
    }
    auto& insert = pending_[itemKey];
    if (!insert) {
        insert = std::make_shared<PendingInsert>();
        insert->backend = backend;
        insert->candidate = candidate;
        insert->due = Clock::now();
    }
    const std::shared_ptr<PendingInsert> waited = insert;
    if (!ensureThread()) {
        // No thread to hand it to, as while the process exits: the caller writes it.
        lock.unlock();
        attempt(itemKey, waited);
        lock.lock();
    } else {
        wakeThread();
        changed_->wait_for(lock, wait, [&] { return waited->done; });
    }
    if (waited->done) {
        return waited->stored;
    }
    return {State::Pending, waited->candidate};
}

// Runs on the cache's thread (or on the caller's, while the process exits), never under mutex_.
void KeychainItemCache::attempt(const Key& key, const std::shared_ptr<PendingInsert>& insert) {
    const std::shared_ptr<KeychainBackend> backend = insert->backend.lock();
    Item stored;
    if (backend) {
        try {
            stored = storeIfAbsent(*backend, key.first, key.second, insert->candidate);
        } catch (...) {
            // A host's store that throws is a store that failed this time.
        }
    }
    bool firstFailure = false;
    {
        const std::lock_guard lock(mutex_);
        const auto found = pending_.find(key);
        const bool current = found != pending_.end() && found->second == insert;
        if (stored.state == State::Stored || !backend) {
            insert->done = true;
            insert->stored = stored;
            if (current) {
                pending_.erase(found);
            }
        } else if (current) {
            firstFailure = insert->backoff.count() == 0;
            insert->backoff = std::min(kLongestRetry, std::max(kFirstRetry, insert->backoff * 2));
            insert->due = Clock::now() + insert->backoff;
        }
    }
    changed_->notify_all();
    if (firstFailure) {
        Diagnostics::report(DiagnosticLevel::Error,
                            "The keychain store cannot take the device UUID now: this process "
                            "uses one kept in memory and stores it as soon as the store allows.");
    }
}

KeychainItemCache::Item KeychainItemCache::storeIfAbsent(KeychainBackend& backend,
                                                         const std::string& key,
                                                         const std::string& service,
                                                         const std::string& candidate) {
    const std::lock_guard write(writeLock());
    KeychainQuery attributes = Keychain::_baseQueryDictionaryForKey(key, service, std::nullopt);
    attributes.accessible = KeychainItemAccessible::AfterFirstUnlock;
    attributes.valueData = KeychainArchive::archivedData(candidate);
    Item winner;
    OSStatus status = errSecSuccess;
    // A store that cannot hold other processes off may still lose the race between its
    // lookup and its write: the second attempt then finds what the other writer left.
    for (int attempt = 0; attempt < 2; ++attempt) {
        status = backend.writeTransaction([&] {
            winner = read(backend, key, service);
            OSStatus written = errSecSuccess;
            if (winner.state == State::Missing) {
                written = backend.add(attributes);
            } else if (winner.state == State::Unreadable) {
                KeychainQuery changes;
                changes.valueData = attributes.valueData;
                changes.accessible = attributes.accessible;
                written = backend.update(attributes, changes);
            } else if (winner.state == State::Failed) {
                return errSecInteractionNotAllowed;
            }
            if (written == errSecSuccess && winner.state != State::Stored) {
                // Read back, so that a store that let two writers in gives both the same one.
                winner = read(backend, key, service);
            }
            return written;
        });
        if (!isRace(status)) {
            break;
        }
    }
    if (status != errSecSuccess || winner.state != State::Stored) {
        forget(backend, key, service);
        return {State::Failed, std::nullopt};
    }
    // Kept, so that a caller whose read missed this write adopts it instead of racing again.
    wrote(backend, key, service, winner.value, true);
    return winner;
}

void KeychainItemCache::wrote(const KeychainBackend& backend, const std::string& key,
                              const std::string& service, const Text& stored, bool keep) {
    const std::lock_guard lock(mutex_);
    if (backend_.lock().get() != &backend) {
        return;
    }
    // A write through Keychain settles the item: an insert still waiting for the store would
    // bring back what that write replaced or erased.
    if (!keep) {
        pending_.erase({key, service});
    }
    if (!interval_) {
        return;
    }
    ++writes_;
    if (keep) {
        entries_.try_emplace({key, service});
    }
    if (const auto found = entries_.find({key, service}); found != entries_.end()) {
        found->second.item = stored ? Item{State::Stored, stored} : Item{State::Missing, {}};
        found->second.known = true;
        ++found->second.version;
    }
}

void KeychainItemCache::forget(const KeychainBackend& backend, const std::string& key,
                               const std::string& service) {
    const std::lock_guard lock(mutex_);
    if (backend_.lock().get() != &backend || !interval_) {
        return;
    }
    ++writes_;
    if (const auto found = entries_.find({key, service}); found != entries_.end()) {
        found->second.known = false;
        ++found->second.version;
    }
}

void KeychainItemCache::run() {
    std::unique_lock lock(mutex_);
    // The store whose change descriptor is watched, held so that the descriptor stays open.
    std::shared_ptr<KeychainBackend> watched;
    int changes = -1;
    Clock::time_point nextPoll = Clock::time_point::max();
    Clock::time_point refreshAt = Clock::time_point::max();
    Clock::time_point confirmAt = Clock::time_point::max();
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        if (const auto backend = backend_.lock(); backend != watched) {
            watched = backend;
            changes = -1;
            refreshAt = confirmAt = Clock::time_point::max();
            nextPoll = interval_ ? now + *interval_ : Clock::time_point::max();
        }
        auto* watch = dynamic_cast<StoreChangeWatch*>(watched.get());
        if (watch != nullptr) {
            // Asked each turn: a store that cannot say now (its directory is missing) may later.
            lock.unlock();
            const int told = watch->changeDescriptor();
            lock.lock();
            if (told >= 0 && told != changes) {
                // What changed while nobody watched (before the watch, or in a forked child's
                // parent) is read at once.
                refreshAt = now;
            }
            changes = told;
        }
        const auto asked =
            std::ranges::find_if(reads_, [](const auto& entry) { return !entry.second->started; });
        if (asked != reads_.end()) {
            const Key key = asked->first;
            const std::shared_ptr<PendingRead> request = asked->second;
            firstRead(lock, key, request);
            continue;
        }
        Clock::time_point wake = Clock::time_point::max();
        std::pair<Key, std::shared_ptr<PendingInsert>> due;
        for (const auto& [key, insert] : pending_) {
            if (insert->due <= now) {
                due = {key, insert};
                break;
            }
            wake = std::min(wake, insert->due);
        }
        if (due.second) {
            lock.unlock();
            attempt(due.first, due.second);
            lock.lock();
            continue;
        }
        const bool told = changes >= 0 && (refreshAt <= now || confirmAt <= now);
        const bool polled = changes < 0 && interval_ && now >= nextPoll;
        if (told || polled) {
            for (Clock::time_point* at : {&refreshAt, &confirmAt}) {
                if (*at <= now) {
                    *at = Clock::time_point::max();
                }
            }
            lock.unlock();
            refresh();
            lock.lock();
            // Counted from the start of this pass, so that the time its reads take does not
            // add to how late another process's change is seen; a store slower than that
            // still gets a rest between passes.
            const auto interval = interval_.value_or(kLongestRetry);
            nextPoll = std::max(now + interval, Clock::now() + interval / 4);
            continue;
        }
        wake = std::min({wake, refreshAt, confirmAt, changes < 0 ? nextPoll : wake});
        lock.unlock();
        pollfd descriptors[2] = {{wakeDescriptor_, POLLIN, 0}, {changes, POLLIN, 0}};
        const int timeout =
            wake == Clock::time_point::max()
                ? -1
                : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(
                                       std::max(wake - Clock::now(), Clock::duration::zero()))
                                       .count());
        const int ready = ::poll(descriptors, changes >= 0 ? 2 : 1, timeout);
        if (ready > 0 && (descriptors[0].revents & POLLIN) != 0) {
            drain(wakeDescriptor_);
        }
        const short watchEvents = ready > 0 && changes >= 0 ? descriptors[1].revents : 0;
        const bool changed =
            (watchEvents & POLLIN) != 0 && watch != nullptr && watch->takeChanges();
        lock.lock();
        if (changed) {
            const Clock::time_point seen = Clock::now();
            refreshAt = std::min(refreshAt, seen + kSettle);
            confirmAt = seen + kConfirm;
        }
    }
}

void KeychainItemCache::refresh() {
    std::shared_ptr<KeychainBackend> backend;
    std::vector<std::pair<Key, std::uint64_t>> due;
    {
        const std::lock_guard lock(mutex_);
        backend = backend_.lock();
        for (const auto& [key, entry] : entries_) {
            due.emplace_back(key, entry.version);
        }
    }
    if (!backend) {
        return;
    }
    for (const auto& [key, version] : due) {
        // Nothing may leave this thread; a read that throws leaves the entry as it was.
        try {
            const Item stored = read(*backend, key.first, key.second);
            // A store that failed for a moment keeps what was read before.
            if (stored.state == State::Failed) {
                continue;
            }
            const std::lock_guard lock(mutex_);
            const auto found = entries_.find(key);
            if (backend_.lock() == backend && found != entries_.end() &&
                found->second.version == version) {
                found->second.item = stored;
                found->second.known = true;
            }
        } catch (...) {
        }
    }
}

}  // namespace NorvAnalytic
