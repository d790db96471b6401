#pragma once

#include <gio/gio.h>

#include <atomic>
#include <functional>
#include <string>

namespace NorvAnalytic {

// The Secret Service daemon's signals that tell of another process's changes (an item created,
// changed or deleted; the daemon gone or replaced), told through an eventfd. Subscribed to on
// the thread whose context dispatches them, and used there only, but for the descriptor.
// Owned by the Secret Service link, which is never destroyed.
class SecretServiceSignalWatch {
public:
    // ownerChanged runs on that thread when the daemon went or another took its place, before
    // the change is told.
    explicit SecretServiceSignalWatch(std::function<void()> ownerChanged);
    SecretServiceSignalWatch(const SecretServiceSignalWatch&) = delete;
    SecretServiceSignalWatch& operator=(const SecretServiceSignalWatch&) = delete;

    // A connection to the daemon owner was opened on bus; a new bus is subscribed to.
    void connected(GDBusConnection* bus, const std::string& owner);
    void unsubscribe();
    // In the child after fork: the bus and its subscriptions are the parent's.
    void forgetAfterFork();

    int changeDescriptor() const { return subscribed_.load() ? changes_ : -1; }
    bool takeChanges();

private:
    void subscribe(GDBusConnection* bus);
    void ownerIs(const std::string& owner);
    void told();

    std::function<void()> ownerChanged_;
    int changes_;
    std::atomic<bool> subscribed_{false};
    GDBusConnection* bus_ = nullptr;
    guint signals_ = 0;
    guint nameWatch_ = 0;
    std::string owner_;
};

}  // namespace NorvAnalytic
