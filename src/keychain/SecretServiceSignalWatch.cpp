#include "keychain/SecretServiceSignalWatch.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace NorvAnalytic {

namespace {

constexpr const char* kServiceName = "org.freedesktop.secrets";

}  // namespace

SecretServiceSignalWatch::SecretServiceSignalWatch(std::function<void()> ownerChanged)
    : ownerChanged_(std::move(ownerChanged)), changes_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void SecretServiceSignalWatch::connected(GDBusConnection* bus, const std::string& owner) {
    owner_ = owner;
    subscribe(bus);
}

// Signals are dispatched in this thread's context, between calls.
void SecretServiceSignalWatch::subscribe(GDBusConnection* bus) {
    if (bus == bus_) {
        return;
    }
    unsubscribe();
    bus_ = G_DBUS_CONNECTION(g_object_ref(bus));
    signals_ = g_dbus_connection_signal_subscribe(
        bus_, kServiceName, "org.freedesktop.Secret.Collection", nullptr, nullptr, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
           gpointer watch) { static_cast<SecretServiceSignalWatch*>(watch)->told(); },
        this, nullptr);
    nameWatch_ = g_bus_watch_name_on_connection(
        bus_, kServiceName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar* owner, gpointer watch) {
            static_cast<SecretServiceSignalWatch*>(watch)->ownerIs(owner);
        },
        [](GDBusConnection*, const gchar*, gpointer watch) {
            static_cast<SecretServiceSignalWatch*>(watch)->ownerIs("");
        },
        this, nullptr);
    subscribed_.store(true);
}

void SecretServiceSignalWatch::unsubscribe() {
    if (bus_ == nullptr) {
        return;
    }
    subscribed_.store(false);
    g_dbus_connection_signal_unsubscribe(bus_, signals_);
    g_bus_unwatch_name(nameWatch_);
    g_object_unref(bus_);
    bus_ = nullptr;
}

void SecretServiceSignalWatch::forgetAfterFork() {
    bus_ = nullptr;
    subscribed_.store(false);
    ::close(changes_);
    changes_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

bool SecretServiceSignalWatch::takeChanges() {
    std::uint64_t count = 0;
    bool changed = false;
    while (::read(changes_, &count, sizeof count) > 0) {
        changed = true;
    }
    return changed;
}

// The daemon went, or another took its place: what it holds may differ, and our session
// with the old one is of no use.
void SecretServiceSignalWatch::ownerIs(const std::string& owner) {
    if (owner == owner_) {
        return;
    }
    owner_ = owner;
    ownerChanged_();
    told();
}

void SecretServiceSignalWatch::told() {
    const std::uint64_t one = 1;
    static_cast<void>(::write(changes_, &one, sizeof one));
}

}  // namespace NorvAnalytic
