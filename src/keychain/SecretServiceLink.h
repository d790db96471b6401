#pragma once

#include <NorvAnalytic/KeychainBackend.h>
#include <libsecret/secret.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "keychain/SecretServiceSignalWatch.h"

namespace NorvAnalytic {

// The process's one link to the Secret Service: a thread of ours (norv-secret) that makes every
// libsecret call, each with a cancellable, while the caller waits for it kCallTimeout at most.
// A call that fails drops the connection, and the next call opens a new one with a new session,
// so a daemon that was restarted is found again. The daemon's signals (an item created,
// changed or deleted; the daemon gone or replaced) are dispatched on the same thread and told
// through an eventfd. Never destroyed; its thread ends at exit.
class SecretServiceLink {
public:
    using Body = std::function<OSStatus(SecretService* service, GCancellable* cancellable)>;

    static SecretServiceLink& shared();

    // Runs body on the link's thread with a connected service, again once on a new connection
    // when the first attempt failed for the service's sake. errSecInteractionNotAllowed when
    // no service answers within kCallTimeout; body is then cancelled.
    OSStatus run(Body body);

    // The failure of a call on the service: no bus, no daemon, a session or object it no longer
    // knows, a refusal, or our time-out. The connection is renewed before the next attempt. The
    // reason is dropped because it may quote attributes.
    static OSStatus failed(GError* error);

    SecretServiceSignalWatch& watch() { return watch_; }

private:
    struct Call;

    SecretServiceLink();
    void afterForkInChild();
    bool ensureThreadLocked();
    void stopAtExit();
    static gboolean runCall(gpointer held);
    void serve(Call& call);
    bool connect(GCancellable* cancellable);
    void disconnect();

    GMainContext* context_;
    GMainLoop* loop_;
    SecretServiceSignalWatch watch_;
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
    // Set by failed() when a call of the service failed in this attempt.
    bool lost_ = false;
};

}  // namespace NorvAnalytic
