#include "keychain/KeychainItemCache.h"

#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/Platform.h>

#include <thread>
#include <vector>

#include "keychain/KeychainArchive.h"

namespace NorvAnalytic {

namespace {

bool isRace(OSStatus status) {
    return status == errSecDuplicateItem || status == errSecItemNotFound;
}

}  // namespace

KeychainItemCache& KeychainItemCache::shared() {
    // Never destroyed: its thread outlives main.
    static auto* cache = new KeychainItemCache();
    return *cache;
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

bool KeychainItemCache::isCached(const KeychainBackend& backend) const {
    const auto current = backend_.lock();
    return current.get() == &backend;
}

KeychainItemCache::Item KeychainItemCache::item(const std::string& key,
                                                const std::string& service) {
    const std::shared_ptr<KeychainBackend> backend = Platform::keychainBackend();
    const auto interval = backend->identityRefreshInterval();
    if (!interval) {
        return read(*backend, key, service);
    }
    std::uint64_t writesBefore = 0;
    std::uint64_t versionBefore = 0;
    {
        const std::lock_guard lock(mutex_);
        if (!isCached(*backend)) {
            backend_ = backend;
            interval_ = *interval;
            entries_.clear();
        }
        const auto found = entries_.find({key, service});
        if (found != entries_.end() && found->second.known) {
            return found->second.item;
        }
        writesBefore = writes_;
        versionBefore = found != entries_.end() ? found->second.version : 0;
    }
    // The first read of an item, or the first after a write whose outcome was unknown.
    const Item stored = read(*backend, key, service);
    const std::lock_guard lock(mutex_);
    if (!isCached(*backend)) {
        return stored;
    }
    const auto found = entries_.find({key, service});
    if (found == entries_.end() && writes_ == writesBefore) {
        entries_.emplace(Key{key, service}, Entry{stored, true, 0});
    } else if (found != entries_.end() && found->second.version == versionBefore) {
        found->second.item = stored;
        found->second.known = true;
    }
    if (!refreshing_) {
        refreshing_ = true;
        std::thread([this] { refreshForever(); }).detach();
    }
    return stored;
}

KeychainItemCache::Item KeychainItemCache::insertIfAbsent(const std::string& key,
                                                          const std::string& service,
                                                          const std::string& candidate) {
    const std::lock_guard write(writeLock_);
    const std::shared_ptr<KeychainBackend> backend = Platform::keychainBackend();
    KeychainQuery attributes = Keychain::_baseQueryDictionaryForKey(key, service, std::nullopt);
    attributes.accessible = KeychainItemAccessible::AfterFirstUnlock;
    attributes.valueData = KeychainArchive::archivedData(candidate);
    Item winner;
    OSStatus status = errSecSuccess;
    // A store that cannot hold other processes off may still lose the race between its
    // lookup and its write: the second attempt then finds what the other writer left.
    for (int attempt = 0; attempt < 2; ++attempt) {
        status = backend->writeTransaction([&] {
            winner = read(*backend, key, service);
            OSStatus written = errSecSuccess;
            if (winner.state == State::Missing) {
                written = backend->add(attributes);
            } else if (winner.state == State::Unreadable) {
                KeychainQuery changes;
                changes.valueData = attributes.valueData;
                changes.accessible = attributes.accessible;
                written = backend->update(attributes, changes);
            } else if (winner.state == State::Failed) {
                return errSecInteractionNotAllowed;
            }
            if (written == errSecSuccess && winner.state != State::Stored) {
                // Read back, so that a store that let two writers in gives both the same one.
                winner = read(*backend, key, service);
            }
            return written;
        });
        if (!isRace(status)) {
            break;
        }
    }
    if (status != errSecSuccess || winner.state != State::Stored) {
        forget(*backend, key, service);
        return {State::Failed, std::nullopt};
    }
    wrote(*backend, key, service, winner.value);
    return winner;
}

void KeychainItemCache::wrote(const KeychainBackend& backend, const std::string& key,
                              const std::string& service, const Text& stored) {
    const std::lock_guard lock(mutex_);
    if (!isCached(backend)) {
        return;
    }
    ++writes_;
    if (const auto found = entries_.find({key, service}); found != entries_.end()) {
        found->second.item = stored ? Item{State::Stored, stored} : Item{State::Missing, {}};
        found->second.known = true;
        ++found->second.version;
    }
}

void KeychainItemCache::forget(const KeychainBackend& backend, const std::string& key,
                               const std::string& service) {
    const std::lock_guard lock(mutex_);
    if (!isCached(backend)) {
        return;
    }
    ++writes_;
    if (const auto found = entries_.find({key, service}); found != entries_.end()) {
        found->second.known = false;
        ++found->second.version;
    }
}

void KeychainItemCache::refreshForever() {
    for (;;) {
        std::chrono::milliseconds interval{0};
        {
            const std::lock_guard lock(mutex_);
            interval = interval_;
        }
        std::this_thread::sleep_for(interval);
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
            continue;
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
                if (isCached(*backend) && found != entries_.end() &&
                    found->second.version == version) {
                    found->second.item = stored;
                    found->second.known = true;
                }
            } catch (...) {
            }
        }
    }
}

}  // namespace NorvAnalytic
