#include "keychain/SecretServiceLink.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <string>
#include <system_error>
#include <utility>

#include "keychain/GObjectPtr.h"
#include "platform/Diagnostics.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

// How long a caller waits for one call of the service: a stopped or hung daemon would keep it
// for D-Bus's 25 s otherwise.
constexpr std::chrono::milliseconds kCallTimeout{3000};

}  // namespace

struct SecretServiceLink::Call {
    Body body;
    GObjectPtr<GCancellable> cancellable{g_cancellable_new()};
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    bool abandoned = false;
    OSStatus status = errSecInteractionNotAllowed;
};

SecretServiceLink& SecretServiceLink::shared() {
    static auto* link = new SecretServiceLink();
    return *link;
}

OSStatus SecretServiceLink::run(Body body) {
    auto call = std::make_shared<Call>();
    call->body = std::move(body);
    {
        const std::lock_guard lock(mutex_);
        if (stopping_ || !ensureThreadLocked()) {
            return errSecInteractionNotAllowed;
        }
        std::erase_if(calls_, [](const std::weak_ptr<Call>& waiting) { return waiting.expired(); });
        calls_.push_back(call);
    }
    g_main_context_invoke_full(
        context_, G_PRIORITY_DEFAULT, &SecretServiceLink::runCall, new std::shared_ptr<Call>(call),
        [](gpointer held) { delete static_cast<std::shared_ptr<Call>*>(held); });
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

OSStatus SecretServiceLink::failed(GError* error) {
    g_clear_error(&error);
    shared().lost_ = true;
    return errSecInteractionNotAllowed;
}

SecretServiceLink::SecretServiceLink()
    : context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)),
      watch_([this] { disconnect(); }) {
    pthread_atfork([] { shared().mutex_.lock(); }, [] { shared().mutex_.unlock(); },
                   [] { shared().afterForkInChild(); });
}

// The thread is the parent's, and so is the D-Bus connection GLib keeps for the process,
// whose own thread the child does not have either: the child's calls start a thread anew
// and fail after their time-out where GLib cannot answer them.
void SecretServiceLink::afterForkInChild() {
    if (thread_) {
        abandonParentsThread(*thread_);
        thread_.reset();
    }
    current_ = nullptr;
    service_ = nullptr;
    watch_.forgetAfterFork();
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    mutex_.unlock();
}

bool SecretServiceLink::ensureThreadLocked() {
    if (thread_) {
        return true;
    }
    try {
        thread_ = startSdkThread("norv-secret", [this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            disconnect();
            watch_.unsubscribe();
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
void SecretServiceLink::stopAtExit() {
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

gboolean SecretServiceLink::runCall(gpointer held) {
    const std::shared_ptr<Call>& call = *static_cast<std::shared_ptr<Call>*>(held);
    shared().serve(*call);
    return G_SOURCE_REMOVE;
}

// On the link's thread.
void SecretServiceLink::serve(Call& call) {
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

bool SecretServiceLink::connect(GCancellable* cancellable) {
    if (service_ != nullptr) {
        return true;
    }
    GError* error = nullptr;
    service_ = secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_OPEN_SESSION,
                                        cancellable, &error);
    if (error != nullptr || service_ == nullptr) {
        g_clear_error(&error);
        disconnect();
        return false;
    }
    auto* proxy = G_DBUS_PROXY(service_);
    g_dbus_proxy_set_default_timeout(proxy, static_cast<gint>(kCallTimeout.count()));
    gchar* owner = g_dbus_proxy_get_name_owner(proxy);
    watch_.connected(g_dbus_proxy_get_connection(proxy), owner != nullptr ? owner : "");
    g_free(owner);
    return true;
}

void SecretServiceLink::disconnect() {
    if (service_ != nullptr) {
        g_object_unref(service_);
        service_ = nullptr;
    }
}

}  // namespace NorvAnalytic
