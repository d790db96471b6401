#include "keychain/SecretServiceKeychainBackend.h"

#include <fcntl.h>
#include <libsecret/secret.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"
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

// How long a caller waits for one call of the service: a stopped or hung daemon would keep it
// for D-Bus's 25 s otherwise.
constexpr std::chrono::milliseconds kCallTimeout{3000};

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

// The process's one link to the Secret Service: a thread of ours (norv-secret) that makes every
// libsecret call, each with a cancellable, while the caller waits for it kCallTimeout at most.
// A call that fails drops the connection, and the next call opens a new one with a new session,
// so a daemon that was restarted is found again. The daemon's signals (an item created,
// changed or deleted; the daemon gone or replaced) are dispatched on the same thread and told
// through an eventfd. Never destroyed; its thread ends at exit.
class SecretServiceLink {
public:
    using Body = std::function<OSStatus(SecretService* service, GCancellable* cancellable)>;

    static SecretServiceLink& shared() {
        static auto* link = new SecretServiceLink();
        return *link;
    }

    // Runs body on the link's thread with a connected service, again once on a new connection
    // when the first attempt failed for the service's sake. errSecInteractionNotAllowed when
    // no service answers within kCallTimeout; body is then cancelled.
    OSStatus run(Body body) {
        auto call = std::make_shared<Call>();
        call->body = std::move(body);
        {
            const std::lock_guard lock(mutex_);
            if (stopping_ || !ensureThreadLocked()) {
                return errSecInteractionNotAllowed;
            }
            std::erase_if(calls_,
                          [](const std::weak_ptr<Call>& waiting) { return waiting.expired(); });
            calls_.push_back(call);
        }
        g_main_context_invoke_full(context_, G_PRIORITY_DEFAULT, &SecretServiceLink::runCall,
                                   new std::shared_ptr<Call>(call), [](gpointer held) {
                                       delete static_cast<std::shared_ptr<Call>*>(held);
                                   });
        std::unique_lock lock(call->mutex);
        if (call->ended.wait_for(lock, kCallTimeout, [&] { return call->done; })) {
            answered_.store(true);
            return call->status;
        }
        call->abandoned = true;
        g_cancellable_cancel(call->cancellable.get());
        lock.unlock();
        if (answered_.exchange(false)) {
            Diagnostics::report(DiagnosticLevel::Error,
                                "The Secret Service did not answer within " +
                                    std::to_string(kCallTimeout.count()) +
                                    " ms: keychain calls fail until it answers again.");
        }
        return errSecInteractionNotAllowed;
    }

    // The failure of a call on the service: no bus, no daemon, a session or object it no longer
    // knows, a refusal, or our time-out. The connection is renewed before the next attempt. The
    // reason is dropped because it may quote attributes.
    static OSStatus failed(GError* error) {
        g_clear_error(&error);
        shared().lost_ = true;
        return errSecInteractionNotAllowed;
    }

    int changeDescriptor() const { return subscribed_.load() ? changes_ : -1; }

    bool takeChanges() {
        std::uint64_t count = 0;
        bool changed = false;
        while (::read(changes_, &count, sizeof count) > 0) {
            changed = true;
        }
        return changed;
    }

private:
    struct Call {
        Body body;
        ObjectPtr<GCancellable> cancellable{g_cancellable_new()};
        std::mutex mutex;
        std::condition_variable ended;
        bool done = false;
        bool abandoned = false;
        OSStatus status = errSecInteractionNotAllowed;
    };

    SecretServiceLink()
        : context_(g_main_context_new()),
          loop_(g_main_loop_new(context_, FALSE)),
          changes_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        pthread_atfork([] { shared().mutex_.lock(); }, [] { shared().mutex_.unlock(); },
                       [] { shared().afterForkInChild(); });
    }

    // The thread is the parent's, and so is the D-Bus connection GLib keeps for the process,
    // whose own thread the child does not have either: the child's calls start a thread anew
    // and fail after their time-out where GLib cannot answer them.
    void afterForkInChild() {
        if (thread_) {
            abandonParentsThread(*thread_);
            thread_.reset();
        }
        current_ = nullptr;
        service_ = nullptr;
        bus_ = nullptr;
        subscribed_.store(false);
        ::close(changes_);
        changes_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
        mutex_.unlock();
    }

    bool ensureThreadLocked() {
        if (thread_) {
            return true;
        }
        try {
            thread_ = startSdkThread("norv-secret", [this] {
                g_main_context_push_thread_default(context_);
                g_main_loop_run(loop_);
                disconnect();
                unsubscribe();
                g_main_context_pop_thread_default(context_);
            });
        } catch (const std::system_error&) {
            return false;
        }
        static std::once_flag registered;
        std::call_once(registered, [] { std::atexit([] { shared().stopAtExit(); }); });
        return true;
    }

    // The call in progress is cancelled, and those still waiting for the thread fail at once,
    // so that a daemon that does not answer never holds up the host's exit.
    void stopAtExit() {
        std::optional<std::thread> thread;
        std::vector<std::shared_ptr<Call>> waiting;
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
            std::swap(thread, thread_);
            if (current_) {
                g_cancellable_cancel(current_);
            }
            for (const std::weak_ptr<Call>& call : calls_) {
                if (auto locked = call.lock()) {
                    waiting.push_back(std::move(locked));
                }
            }
        }
        for (const std::shared_ptr<Call>& call : waiting) {
            {
                const std::lock_guard lock(call->mutex);
                call->done = true;
            }
            call->ended.notify_all();
        }
        g_main_loop_quit(loop_);
        if (thread && thread->get_id() != std::this_thread::get_id()) {
            thread->join();
        } else if (thread) {
            thread->detach();
        }
    }

    static gboolean runCall(gpointer held) {
        const std::shared_ptr<Call>& call = *static_cast<std::shared_ptr<Call>*>(held);
        shared().serve(*call);
        return G_SOURCE_REMOVE;
    }

    // On the link's thread.
    void serve(Call& call) {
        {
            const std::lock_guard lock(call.mutex);
            if (call.abandoned) {
                return;
            }
        }
        {
            const std::lock_guard lock(mutex_);
            current_ = call.cancellable.get();
        }
        OSStatus status = errSecInteractionNotAllowed;
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (!connect(call.cancellable.get())) {
                break;
            }
            lost_ = false;
            try {
                status = call.body(service_, call.cancellable.get());
            } catch (...) {
                status = errSecInteractionNotAllowed;
            }
            if (!lost_) {
                break;
            }
            // A failed call: a daemon restarted since, or a session it no longer knows.
            disconnect();
            if (g_cancellable_is_cancelled(call.cancellable.get())) {
                break;
            }
        }
        {
            const std::lock_guard lock(mutex_);
            current_ = nullptr;
        }
        {
            const std::lock_guard lock(call.mutex);
            call.status = status;
            call.done = true;
        }
        call.ended.notify_all();
    }

    bool connect(GCancellable* cancellable) {
        if (service_ != nullptr) {
            return true;
        }
        GError* error = nullptr;
        service_ = secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr,
                                            SECRET_SERVICE_OPEN_SESSION, cancellable, &error);
        if (error != nullptr || service_ == nullptr) {
            g_clear_error(&error);
            disconnect();
            return false;
        }
        auto* proxy = G_DBUS_PROXY(service_);
        g_dbus_proxy_set_default_timeout(proxy, static_cast<gint>(kCallTimeout.count()));
        gchar* owner = g_dbus_proxy_get_name_owner(proxy);
        owner_ = owner != nullptr ? owner : "";
        g_free(owner);
        subscribe(g_dbus_proxy_get_connection(proxy));
        return true;
    }

    void disconnect() {
        if (service_ != nullptr) {
            g_object_unref(service_);
            service_ = nullptr;
        }
    }

    // Signals are dispatched in this thread's context, between calls.
    void subscribe(GDBusConnection* bus) {
        if (bus == bus_) {
            return;
        }
        unsubscribe();
        bus_ = G_DBUS_CONNECTION(g_object_ref(bus));
        signals_ = g_dbus_connection_signal_subscribe(
            bus_, kServiceName, "org.freedesktop.Secret.Collection", nullptr, nullptr, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
               gpointer) { shared().told(); },
            nullptr, nullptr);
        nameWatch_ = g_bus_watch_name_on_connection(
            bus_, kServiceName, G_BUS_NAME_WATCHER_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar* owner, gpointer) {
                shared().ownerIs(owner);
            },
            [](GDBusConnection*, const gchar*, gpointer) { shared().ownerIs(""); }, nullptr,
            nullptr);
        subscribed_.store(true);
    }

    void unsubscribe() {
        if (bus_ == nullptr) {
            return;
        }
        subscribed_.store(false);
        g_dbus_connection_signal_unsubscribe(bus_, signals_);
        g_bus_unwatch_name(nameWatch_);
        g_object_unref(bus_);
        bus_ = nullptr;
    }

    // The daemon went, or another took its place: what it holds may differ, and our session
    // with the old one is of no use.
    void ownerIs(const std::string& owner) {
        if (owner == owner_) {
            return;
        }
        owner_ = owner;
        disconnect();
        told();
    }

    void told() {
        const std::uint64_t one = 1;
        static_cast<void>(::write(changes_, &one, sizeof one));
    }

    static constexpr const char* kServiceName = "org.freedesktop.secrets";

    GMainContext* context_;
    GMainLoop* loop_;
    int changes_;
    std::atomic<bool> subscribed_{false};
    // Cleared by a call that answered, set again by one that did not: "not answering" is said
    // once per outage.
    std::atomic<bool> answered_{true};
    std::mutex mutex_;
    std::optional<std::thread> thread_;
    // The calls made so far that may still wait, and the one the thread serves now.
    std::vector<std::weak_ptr<Call>> calls_;
    GCancellable* current_ = nullptr;
    bool stopping_ = false;
    // The link's thread only.
    SecretService* service_ = nullptr;
    GDBusConnection* bus_ = nullptr;
    guint signals_ = 0;
    guint nameWatch_ = 0;
    std::string owner_;
    // Set by failed() when a call of the service failed in this attempt.
    bool lost_ = false;
};

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
            const ObjectPtr<SecretCollection> collection(
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
            const ObjectPtr<SecretItem> item(secret_item_create_sync(
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
    return SecretServiceLink::shared().changeDescriptor();
}

bool SecretServiceKeychainBackend::takeChanges() {
    return SecretServiceLink::shared().takeChanges();
}

}  // namespace NorvAnalytic
