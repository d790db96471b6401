#include "keychain/SecretServiceKeychainBackend.h"

#include <fcntl.h>
#include <libsecret/secret.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <thread>

#include "keychain/GObjectPtr.h"
#include "keychain/SecretServiceLink.h"
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

// Finds the matching items without unlocking anything: locked ones come back locked.
OSStatus search(SecretService* service, SecretSchema* schema, GCancellable* cancellable,
                const KeychainQuery& query, SecretSearchFlags flags, ItemList& items) {
    const Attributes attributes = identity(query);
    GError* error = nullptr;
    items.reset(secret_service_search_sync(
        service, schema, attributes.get(),
        static_cast<SecretSearchFlags>(flags | SECRET_SEARCH_ALL), cancellable, &error));
    if (error != nullptr) {
        return SecretServiceLink::failed(error);
    }
    if (!items) {
        return errSecItemNotFound;
    }
    return anyLocked(items.get()) ? errSecInteractionNotAllowed : errSecSuccess;
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

    ~Session() { secret_schema_unref(schema); }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::string collectionAlias;
    SecretSchema* schema;
};

SecretServiceKeychainBackend::SecretServiceKeychainBackend(const std::string& schemaName,
                                                           const std::string& collectionAlias)
    : session_(std::make_unique<Session>(schemaName, collectionAlias)),
      lockPath_(DataDirectory::path() / (schemaName + ".lock")) {}

SecretServiceKeychainBackend::~SecretServiceKeychainBackend() = default;

// Each call's work runs on the link's thread, which may outlive a caller that stopped waiting:
// what it reads and writes is its own copy, handed back only when it answered in time.
OSStatus SecretServiceKeychainBackend::copyMatching(const KeychainQuery& query,
                                                    KeychainItemAttributes* result) {
    auto found = std::make_shared<KeychainItemAttributes>();
    const OSStatus status = SecretServiceLink::shared().run(
        [session = session_, query, found](SecretService* service, GCancellable* cancellable) {
            ItemList items;
            const OSStatus searched = search(service, session->schema, cancellable, query,
                                             SECRET_SEARCH_LOAD_SECRETS, items);
            if (searched != errSecSuccess) {
                return searched;
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
            found->account = lookup(attributes.get(), kAccountAttribute);
            found->service = lookup(attributes.get(), kServiceAttribute);
            found->accessGroup = group.empty() ? Text() : Text(group);
            if (accessible == kWhenUnlocked) {
                found->accessible = KeychainItemAccessible::WhenUnlocked;
            } else if (accessible == kAfterFirstUnlock) {
                found->accessible = KeychainItemAccessible::AfterFirstUnlock;
            }
            found->valueData.assign(bytes, bytes + length);
            return errSecSuccess;
        });
    if (status == errSecSuccess && result != nullptr) {
        *result = std::move(*found);
    }
    return status;
}

OSStatus SecretServiceKeychainBackend::add(const KeychainQuery& attributes) {
    return SecretServiceLink::shared().run(
        [session = session_, attributes](SecretService* service, GCancellable* cancellable) {
            // An item without an access group carries an empty one, so that the duplicate test
            // below matches exactly one identity.
            KeychainQuery exact = attributes;
            exact.accessGroup = attributes.accessGroup.value_or("");
            ItemList existing;
            const OSStatus status =
                search(service, session->schema, cancellable, exact, SECRET_SEARCH_NONE, existing);
            if (existing) {
                return errSecDuplicateItem;
            }
            if (status != errSecItemNotFound) {
                return status;
            }
            GError* error = nullptr;
            const GObjectPtr<SecretCollection> collection(
                secret_collection_for_alias_sync(service, session->collectionAlias.c_str(),
                                                 SECRET_COLLECTION_NONE, cancellable, &error));
            if (error != nullptr) {
                return SecretServiceLink::failed(error);
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
            const GObjectPtr<SecretItem> item(secret_item_create_sync(
                collection.get(), session->schema, stored.get(), label.c_str(), value.get(),
                SECRET_ITEM_CREATE_NONE, cancellable, &error));
            if (error != nullptr) {
                return SecretServiceLink::failed(error);
            }
            return errSecSuccess;
        });
}

OSStatus SecretServiceKeychainBackend::update(const KeychainQuery& query,
                                              const KeychainQuery& changes) {
    return SecretServiceLink::shared().run([session = session_, query, changes](
                                               SecretService* service, GCancellable* cancellable) {
        ItemList items;
        const OSStatus status =
            search(service, session->schema, cancellable, query, SECRET_SEARCH_NONE, items);
        if (status != errSecSuccess) {
            return status;
        }
        std::optional<Value> value;
        if (changes.valueData) {
            value.emplace(
                secret_value_new(reinterpret_cast<const gchar*>(changes.valueData->data()),
                                 static_cast<gssize>(changes.valueData->size()), kContentType));
        }
        for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
            auto* item = SECRET_ITEM(entry->data);
            GError* error = nullptr;
            if (value && !secret_item_set_secret_sync(item, value->get(), cancellable, &error)) {
                return SecretServiceLink::failed(error);
            }
            if (changes.accessible) {
                const Attributes current(secret_item_get_attributes(item));
                Attributes replaced = newAttributes();
                for (const char* name :
                     {kAccountAttribute, kServiceAttribute, kAccessGroupAttribute}) {
                    put(replaced.get(), name, lookup(current.get(), name));
                }
                put(replaced.get(), kAccessibleAttribute, accessibleName(*changes.accessible));
                if (!secret_item_set_attributes_sync(item, session->schema, replaced.get(),
                                                     cancellable, &error)) {
                    return SecretServiceLink::failed(error);
                }
            }
        }
        return errSecSuccess;
    });
}

OSStatus SecretServiceKeychainBackend::remove(const KeychainQuery& query) {
    return SecretServiceLink::shared().run(
        [session = session_, query](SecretService* service, GCancellable* cancellable) {
            ItemList items;
            const OSStatus status =
                search(service, session->schema, cancellable, query, SECRET_SEARCH_NONE, items);
            if (status != errSecSuccess) {
                return status;
            }
            for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
                GError* error = nullptr;
                if (!secret_item_delete_sync(SECRET_ITEM(entry->data), cancellable, &error)) {
                    return SecretServiceLink::failed(error);
                }
            }
            return errSecSuccess;
        });
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

// Only while the daemon's signals cannot be had: another process's change is told otherwise.
std::optional<std::chrono::milliseconds> SecretServiceKeychainBackend::identityRefreshInterval()
    const {
    return std::chrono::seconds(5);
}

int SecretServiceKeychainBackend::changeDescriptor() {
    return SecretServiceLink::shared().watch().changeDescriptor();
}

bool SecretServiceKeychainBackend::takeChanges() {
    return SecretServiceLink::shared().watch().takeChanges();
}

}  // namespace NorvAnalytic
