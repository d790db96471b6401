#include "keychain/SecretServiceItems.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "keychain/GObjectPtr.h"
#include "keychain/SecretServiceLink.h"

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

SecretServiceItems::SecretServiceItems(const std::string& schemaName, std::string collectionAlias)
    : collectionAlias_(std::move(collectionAlias)),
      schema_(secret_schema_new(schemaName.c_str(), SECRET_SCHEMA_NONE, kAccountAttribute,
                                SECRET_SCHEMA_ATTRIBUTE_STRING, kServiceAttribute,
                                SECRET_SCHEMA_ATTRIBUTE_STRING, kAccessGroupAttribute,
                                SECRET_SCHEMA_ATTRIBUTE_STRING, kAccessibleAttribute,
                                SECRET_SCHEMA_ATTRIBUTE_STRING, nullptr)) {}

SecretServiceItems::~SecretServiceItems() { secret_schema_unref(schema_); }

OSStatus SecretServiceItems::copyMatching(SecretService* service, GCancellable* cancellable,
                                          const KeychainQuery& query,
                                          KeychainItemAttributes& found) const {
    ItemList items;
    const OSStatus searched =
        search(service, schema_, cancellable, query, SECRET_SEARCH_LOAD_SECRETS, items);
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
    found.account = lookup(attributes.get(), kAccountAttribute);
    found.service = lookup(attributes.get(), kServiceAttribute);
    found.accessGroup = group.empty() ? Text() : Text(group);
    if (accessible == kWhenUnlocked) {
        found.accessible = KeychainItemAccessible::WhenUnlocked;
    } else if (accessible == kAfterFirstUnlock) {
        found.accessible = KeychainItemAccessible::AfterFirstUnlock;
    }
    found.valueData.assign(bytes, bytes + length);
    return errSecSuccess;
}

OSStatus SecretServiceItems::add(SecretService* service, GCancellable* cancellable,
                                 const KeychainQuery& attributes) const {
    // An item without an access group carries an empty one, so that the duplicate test below
    // matches exactly one identity.
    KeychainQuery exact = attributes;
    exact.accessGroup = attributes.accessGroup.value_or("");
    ItemList existing;
    const OSStatus status =
        search(service, schema_, cancellable, exact, SECRET_SEARCH_NONE, existing);
    if (existing) {
        return errSecDuplicateItem;
    }
    if (status != errSecItemNotFound) {
        return status;
    }
    GError* error = nullptr;
    const GObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
        service, collectionAlias_.c_str(), SECRET_COLLECTION_NONE, cancellable, &error));
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
    const GObjectPtr<SecretItem> item(
        secret_item_create_sync(collection.get(), schema_, stored.get(), label.c_str(), value.get(),
                                SECRET_ITEM_CREATE_NONE, cancellable, &error));
    if (error != nullptr) {
        return SecretServiceLink::failed(error);
    }
    return errSecSuccess;
}

OSStatus SecretServiceItems::update(SecretService* service, GCancellable* cancellable,
                                    const KeychainQuery& query,
                                    const KeychainQuery& changes) const {
    ItemList items;
    const OSStatus status = search(service, schema_, cancellable, query, SECRET_SEARCH_NONE, items);
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
        if (value && !secret_item_set_secret_sync(item, value->get(), cancellable, &error)) {
            return SecretServiceLink::failed(error);
        }
        if (changes.accessible) {
            const Attributes current(secret_item_get_attributes(item));
            Attributes replaced = newAttributes();
            for (const char* name : {kAccountAttribute, kServiceAttribute, kAccessGroupAttribute}) {
                put(replaced.get(), name, lookup(current.get(), name));
            }
            put(replaced.get(), kAccessibleAttribute, accessibleName(*changes.accessible));
            if (!secret_item_set_attributes_sync(item, schema_, replaced.get(), cancellable,
                                                 &error)) {
                return SecretServiceLink::failed(error);
            }
        }
    }
    return errSecSuccess;
}

OSStatus SecretServiceItems::remove(SecretService* service, GCancellable* cancellable,
                                    const KeychainQuery& query) const {
    ItemList items;
    const OSStatus status = search(service, schema_, cancellable, query, SECRET_SEARCH_NONE, items);
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
}

}  // namespace NorvAnalytic
