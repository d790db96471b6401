#include "keychain/SecretServiceKeychainBackend.h"

#include <fcntl.h>
#include <libsecret/secret.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <string_view>
#include <thread>

#include "storage/DataDirectory.h"

namespace NorvAnalytic {

namespace {

constexpr const char* kAccountAttribute = "account";
constexpr const char* kServiceAttribute = "service";
constexpr const char* kAccessGroupAttribute = "accessGroup";
constexpr const char* kAccessibleAttribute = "accessible";
constexpr const char* kWhenUnlocked = "WhenUnlocked";
constexpr const char* kAfterFirstUnlock = "AfterFirstUnlock";
constexpr const char* kContentType = "application/octet-stream";

struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename Object>
using ObjectPtr = std::unique_ptr<Object, ObjectUnref>;

struct HashTableUnref {
    void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, HashTableUnref>;

struct ValueUnref {
    void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using Value = std::unique_ptr<SecretValue, ValueUnref>;

struct ItemListFree {
    void operator()(GList* items) const { g_list_free_full(items, g_object_unref); }
};
using ItemList = std::unique_ptr<GList, ItemListFree>;

// Every failure of the service (no bus, no daemon, a refused call) is a keychain that cannot
// be reached; the reason is dropped because it may quote attributes.
OSStatus failed(GError* error) {
    g_clear_error(&error);
    return errSecInteractionNotAllowed;
}

Attributes newAttributes() {
    return Attributes(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
}

void put(GHashTable* attributes, const char* name, const std::string& value) {
    g_hash_table_insert(attributes, g_strdup(name), g_strdup(value.c_str()));
}

std::string lookup(GHashTable* attributes, const char* name) {
    const auto* value = static_cast<const gchar*>(g_hash_table_lookup(attributes, name));
    return value != nullptr ? value : "";
}

const char* accessibleName(KeychainItemAccessible accessible) {
    return accessible == KeychainItemAccessible::WhenUnlocked ? kWhenUnlocked : kAfterFirstUnlock;
}

// The attributes that pick an item; without an access group, items of every group match.
Attributes identity(const KeychainQuery& query) {
    Attributes attributes = newAttributes();
    put(attributes.get(), kAccountAttribute, query.account);
    put(attributes.get(), kServiceAttribute, query.service);
    if (query.accessGroup) {
        put(attributes.get(), kAccessGroupAttribute, *query.accessGroup);
    }
    return attributes;
}

bool anyLocked(GList* items) {
    for (GList* entry = items; entry != nullptr; entry = entry->next) {
        if (secret_item_get_locked(SECRET_ITEM(entry->data))) {
            return true;
        }
    }
    return false;
}

// Two processes adding one item at one instant may both succeed; reading the same one of the
// two everywhere keeps them from holding different device UUIDs.
SecretItem* firstByPath(GList* items) {
    auto* first = SECRET_ITEM(items->data);
    for (GList* entry = items->next; entry != nullptr; entry = entry->next) {
        auto* item = SECRET_ITEM(entry->data);
        if (std::string_view(g_dbus_proxy_get_object_path(G_DBUS_PROXY(item))) <
            g_dbus_proxy_get_object_path(G_DBUS_PROXY(first))) {
            first = item;
        }
    }
    return first;
}

}  // namespace

struct SecretServiceKeychainBackend::Session {
    Session(const std::string& schemaName, std::string alias)
        : collectionAlias(std::move(alias)),
          schema(secret_schema_new(schemaName.c_str(), SECRET_SCHEMA_NONE, kAccountAttribute,
                                   SECRET_SCHEMA_ATTRIBUTE_STRING, kServiceAttribute,
                                   SECRET_SCHEMA_ATTRIBUTE_STRING, kAccessGroupAttribute,
                                   SECRET_SCHEMA_ATTRIBUTE_STRING, kAccessibleAttribute,
                                   SECRET_SCHEMA_ATTRIBUTE_STRING, nullptr)) {}

    ~Session() {
        if (service != nullptr) {
            g_object_unref(service);
        }
        secret_schema_unref(schema);
    }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Connects on first use and again after a failed attempt, so a daemon started later
    // is found.
    bool connectIfNeeded() {
        if (service != nullptr) {
            return true;
        }
        GError* error = nullptr;
        service = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
        g_clear_error(&error);
        return service != nullptr;
    }

    // Finds the matching items without unlocking anything: locked ones come back locked.
    OSStatus search(const KeychainQuery& query, SecretSearchFlags flags, ItemList& items) {
        if (!connectIfNeeded()) {
            return errSecInteractionNotAllowed;
        }
        const Attributes attributes = identity(query);
        GError* error = nullptr;
        items.reset(secret_service_search_sync(
            service, schema, attributes.get(),
            static_cast<SecretSearchFlags>(flags | SECRET_SEARCH_ALL), nullptr, &error));
        if (error != nullptr) {
            return failed(error);
        }
        if (!items) {
            return errSecItemNotFound;
        }
        return anyLocked(items.get()) ? errSecInteractionNotAllowed : errSecSuccess;
    }

    std::string collectionAlias;
    SecretSchema* schema;
    std::mutex mutex;
    SecretService* service = nullptr;
};

SecretServiceKeychainBackend::SecretServiceKeychainBackend(const std::string& schemaName,
                                                           const std::string& collectionAlias)
    : session_(std::make_unique<Session>(schemaName, collectionAlias)),
      lockPath_(DataDirectory::path() / (schemaName + ".lock")) {}

SecretServiceKeychainBackend::~SecretServiceKeychainBackend() = default;

OSStatus SecretServiceKeychainBackend::copyMatching(const KeychainQuery& query,
                                                    KeychainItemAttributes* result) {
    std::lock_guard lock(session_->mutex);
    ItemList items;
    const OSStatus status = session_->search(query, SECRET_SEARCH_LOAD_SECRETS, items);
    if (status != errSecSuccess || result == nullptr) {
        return status;
    }
    auto* item = firstByPath(items.get());
    const Value value(secret_item_get_secret(item));
    if (!value) {
        return errSecInteractionNotAllowed;
    }
    gsize length = 0;
    const auto* bytes =
        reinterpret_cast<const std::uint8_t*>(secret_value_get(value.get(), &length));
    const Attributes attributes(secret_item_get_attributes(item));
    const std::string group = lookup(attributes.get(), kAccessGroupAttribute);
    const std::string accessible = lookup(attributes.get(), kAccessibleAttribute);
    result->account = lookup(attributes.get(), kAccountAttribute);
    result->service = lookup(attributes.get(), kServiceAttribute);
    result->accessGroup = group.empty() ? Text() : Text(group);
    result->accessible = std::nullopt;
    if (accessible == kWhenUnlocked) {
        result->accessible = KeychainItemAccessible::WhenUnlocked;
    } else if (accessible == kAfterFirstUnlock) {
        result->accessible = KeychainItemAccessible::AfterFirstUnlock;
    }
    result->valueData.assign(bytes, bytes + length);
    return errSecSuccess;
}

OSStatus SecretServiceKeychainBackend::add(const KeychainQuery& attributes) {
    std::lock_guard lock(session_->mutex);
    // An item without an access group carries an empty one, so that the duplicate test
    // below matches exactly one identity.
    KeychainQuery exact = attributes;
    exact.accessGroup = attributes.accessGroup.value_or("");
    ItemList existing;
    const OSStatus status = session_->search(exact, SECRET_SEARCH_NONE, existing);
    if (existing) {
        return errSecDuplicateItem;
    }
    if (status != errSecItemNotFound) {
        return status;
    }

    GError* error = nullptr;
    const ObjectPtr<SecretCollection> collection(
        secret_collection_for_alias_sync(session_->service, session_->collectionAlias.c_str(),
                                         SECRET_COLLECTION_NONE, nullptr, &error));
    if (error != nullptr) {
        return failed(error);
    }
    // Creating a missing collection or unlocking a locked one would need a prompt.
    if (!collection || secret_collection_get_locked(collection.get())) {
        return errSecInteractionNotAllowed;
    }

    const Attributes stored = identity(exact);
    if (attributes.accessible) {
        put(stored.get(), kAccessibleAttribute, accessibleName(*attributes.accessible));
    }
    const Data payload = attributes.valueData.value_or(Data{});
    const Value value(secret_value_new(reinterpret_cast<const gchar*>(payload.data()),
                                       static_cast<gssize>(payload.size()), kContentType));
    const std::string label = attributes.service + " (" + attributes.account + ")";
    const ObjectPtr<SecretItem> item(
        secret_item_create_sync(collection.get(), session_->schema, stored.get(), label.c_str(),
                                value.get(), SECRET_ITEM_CREATE_NONE, nullptr, &error));
    if (error != nullptr) {
        return failed(error);
    }
    return errSecSuccess;
}

OSStatus SecretServiceKeychainBackend::update(const KeychainQuery& query,
                                              const KeychainQuery& changes) {
    std::lock_guard lock(session_->mutex);
    ItemList items;
    const OSStatus status = session_->search(query, SECRET_SEARCH_NONE, items);
    if (status != errSecSuccess) {
        return status;
    }
    std::optional<Value> value;
    if (changes.valueData) {
        value.emplace(secret_value_new(reinterpret_cast<const gchar*>(changes.valueData->data()),
                                       static_cast<gssize>(changes.valueData->size()),
                                       kContentType));
    }
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        auto* item = SECRET_ITEM(entry->data);
        GError* error = nullptr;
        if (value && !secret_item_set_secret_sync(item, value->get(), nullptr, &error)) {
            return failed(error);
        }
        if (changes.accessible) {
            const Attributes current(secret_item_get_attributes(item));
            Attributes replaced = newAttributes();
            for (const char* name : {kAccountAttribute, kServiceAttribute, kAccessGroupAttribute}) {
                put(replaced.get(), name, lookup(current.get(), name));
            }
            put(replaced.get(), kAccessibleAttribute, accessibleName(*changes.accessible));
            if (!secret_item_set_attributes_sync(item, session_->schema, replaced.get(), nullptr,
                                                 &error)) {
                return failed(error);
            }
        }
    }
    return errSecSuccess;
}

OSStatus SecretServiceKeychainBackend::remove(const KeychainQuery& query) {
    std::lock_guard lock(session_->mutex);
    ItemList items;
    const OSStatus status = session_->search(query, SECRET_SEARCH_NONE, items);
    if (status != errSecSuccess) {
        return status;
    }
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        GError* error = nullptr;
        if (!secret_item_delete_sync(SECRET_ITEM(entry->data), nullptr, &error)) {
            return failed(error);
        }
    }
    return errSecSuccess;
}

OSStatus SecretServiceKeychainBackend::writeTransaction(const std::function<OSStatus()>& body) {
    if (!DataDirectory::makePrivate(lockPath_.parent_path())) {
        return errSecInteractionNotAllowed;
    }
    const int descriptor =
        ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return errSecInteractionNotAllowed;
    }
    // Closing the descriptor lets the lock go, however body ends.
    struct Closer {
        int descriptor;
        ~Closer() { ::close(descriptor); }
    } closer{descriptor};
    // A turn lasts a few D-Bus round trips; one held far longer belongs to a hung process.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() > giveUp) {
            return errSecInteractionNotAllowed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return body();
}

// A read is a D-Bus round trip of milliseconds, so the identity is re-read a little more often
// than once a second: another process's change, an erasure included, shows up within one even
// when the daemon answers slowly.
std::optional<std::chrono::milliseconds> SecretServiceKeychainBackend::identityRefreshInterval()
    const {
    return std::chrono::milliseconds(750);
}

}  // namespace NorvAnalytic
