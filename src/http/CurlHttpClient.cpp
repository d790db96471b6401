#include <NorvAnalytic/CurlHttpClient.h>
#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <limits>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "http/CurlTransfer.h"
#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

constexpr long kMaxConnectionsPerHost = 6;
// Requests in curl at once. Over HTTP/2 they are streams on one connection. Over HTTP/1.1 a
// connection carries one at a time, and curl tries every transfer it holds beyond those again
// and again as connections free up: one ready behind each connection keeps all six busy.
constexpr std::size_t kMaxTransfers = 64;
constexpr std::size_t kMaxTransfersOneAtATime = 2 * kMaxConnectionsPerHost;
// With transfers running, libcurl's own timers wake the loop sooner when they must. With none,
// it sleeps until a request or a stop wakes it.
constexpr int kPollMilliseconds = 1000;
constexpr int kIdlePollMilliseconds = std::numeric_limits<int>::max();

using Completion = HttpClient::Completion;

struct Settings {
    std::vector<std::string> connectTo;
    std::string caInfo;
    std::uint64_t version = 1;
};

// What only the network thread touches. After a fork the child leaves the parent's for good:
// cleaning it up would write a TLS close or a GOAWAY on sockets the parent still uses.
struct Network {
    CURLM* multi = nullptr;
    CURLSH* share = nullptr;
    // Every easy handle made, each kept for the next request; those without one are idle.
    std::vector<std::unique_ptr<CurlTransfer>> transfers;
    std::vector<CurlTransfer*> idle;
    std::size_t running = 0;
    // The last answer came over a connection that carries many requests at once (HTTP/2).
    bool multiplexed = false;
    // Read when the thread starts: a proxy named in the environment later is not used.
    bool proxyFromEnvironment = false;
    curl_slist* connectTo = nullptr;

    std::size_t room() const {
        const std::size_t limit = multiplexed ? kMaxTransfers : kMaxTransfersOneAtATime;
        return running < limit ? limit - running : 0;
    }
};

void completeUnsent(Completion& completion, HttpClientErrorCode code, const char* why) {
    CurlRequest{{}, std::move(completion)}.complete(std::nullopt, std::nullopt, HttpClient::error(code, why));
}

}  // namespace

// Nested in an exported class, the implementation would be exported too; it is ours alone.
class __attribute__((visibility("hidden"))) CurlHttpClient::Impl {
public:
    Impl() {
        static const bool initialized = [] {
            curl_global_init(CURL_GLOBAL_DEFAULT);
            return true;
        }();
        static_cast<void>(initialized);
        Registry& registry = Registry::instance();
        std::lock_guard lock(registry.mutex);
        registry.clients.insert(this);
    }

    // Stops the thread and frees this client; on the client's own thread (a completion that
    // dropped the last reference) the thread frees it once it has left its loop.
    static void destroy(Impl* impl) {
        {
            Registry& registry = Registry::instance();
            std::lock_guard lock(registry.mutex);
            registry.clients.erase(impl);
        }
        {
            std::lock_guard lock(impl->mutex_);
            if (impl->thread_.joinable() && impl->thread_.get_id() == std::this_thread::get_id()) {
                impl->stopRequestedLocked();
                impl->deleteWhenStopped_ = true;
                impl->thread_.detach();
                return;
            }
        }
        impl->stop("The request was cancelled: its HTTP client was destroyed");
        delete impl;
    }

    void send(HttpRequest request, Completion completion) {
        std::unique_lock lock(mutex_);
        if (state_ == State::Stopped) {
            lock.unlock();
            completeUnsent(completion, HttpClientErrorCancelled,
                           "The request was not sent: the process is exiting");
            return;
        }
        if (incoming_.size() >= kMaxWaitingRequests) {
            lock.unlock();
            completeUnsent(completion, HttpClientErrorDropped,
                           "The request was dropped: too many requests were waiting");
            return;
        }
        incoming_.push_back({std::move(request), std::move(completion), nextSequence_++});
        if (state_ == State::Idle && !start()) {
            CurlRequest unsent = std::move(incoming_.back());
            incoming_.pop_back();
            lock.unlock();
            completeUnsent(unsent.completion, HttpClientErrorTransport,
                           "The request was not sent: no network thread could start");
        } else if (sleepsWithRoom_) {
            sleepsWithRoom_ = false;
            curl_multi_wakeup(network_->multi);
        }
    }

    // Requests still in the list are cancelled here; transfers libcurl has not started writing
    // are taken out of the multi handle by the network thread, which this waits for (unless it
    // is that thread: a completion that cancels, whose later requests the pre-request check stops).
    void cancelUnsent() {
        std::deque<CurlRequest> cancelled;
        std::uint64_t ticket = 0;
        bool wait = false;
        {
            std::lock_guard lock(mutex_);
            cancelBefore_.store(nextSequence_, std::memory_order_release);
            cancelled.swap(incoming_);
            if (state_ == State::Running) {
                ticket = ++cancelsAsked_;
                curl_multi_wakeup(network_->multi);
                wait = thread_.get_id() != std::this_thread::get_id();
            }
        }
        for (CurlRequest& request : cancelled) {
            request.cancel("The request was cancelled before it was sent");
        }
        if (wait) {
            std::unique_lock lock(mutex_);
            cancelsDone_.wait(lock, [&] { return cancelsMade_ >= ticket || state_ != State::Running; });
        }
    }

    void connectTo(const std::string& hostAndPort, const std::string& addressAndPort) {
        std::lock_guard lock(mutex_);
        const std::string prefix = hostAndPort + ":";
        std::erase_if(settings_.connectTo,
                      [&](const std::string& entry) { return entry.starts_with(prefix); });
        settings_.connectTo.push_back(prefix + addressAndPort);
        ++settings_.version;
    }

    void setCaInfo(const std::string& path) {
        std::lock_guard lock(mutex_);
        settings_.caInfo = path;
        ++settings_.version;
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

private:
    enum class State { Idle, Running, Stopped };

    // The live clients, for the exit hook and the fork handlers. Taken before a client's own
    // lock, never inside it.
    struct Registry {
        std::mutex mutex;
        std::set<Impl*> clients;

        static Registry& instance() {
            // Never destroyed: clients may be made and destroyed while the process exits.
            static auto* registry = [] {
                auto* made = new Registry;
                // Before libcurl's and OpenSSL's own exit hooks, which were registered first.
                std::atexit(&stopAll);
                pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild);
                return made;
            }();
            return *registry;
        }

        static void stopAll() {
            Registry& registry = instance();
            std::lock_guard lock(registry.mutex);
            for (Impl* client : registry.clients) {
                client->stop("The request was cancelled: the process is exiting");
            }
        }
        static void beforeFork() {
            Registry& registry = instance();
            registry.mutex.lock();
            for (Impl* client : registry.clients) {
                client->mutex_.lock();
            }
        }
        static void afterForkInParent() {
            Registry& registry = instance();
            for (Impl* client : registry.clients) {
                client->mutex_.unlock();
            }
            registry.mutex.unlock();
        }
        static void afterForkInChild() {
            Registry& registry = instance();
            for (Impl* client : registry.clients) {
                client->abandonParentsNetwork();
                client->mutex_.unlock();
            }
            registry.mutex.unlock();
        }
    };

    // Under mutex_. The network handle is made here so that senders can wake the thread.
    bool start() {
        auto network = std::make_unique<Network>();
        network->proxyFromEnvironment = CurlTransfer::environmentNamesProxy();
        network->multi = curl_multi_init();
        network->share = curl_share_init();
        curl_multi_setopt(network->multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
        curl_multi_setopt(network->multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
        // curl keeps four idle connections per handle in the multi by default, and ours leave it
        // after each request: without a floor it closes kept connections between bursts.
        curl_multi_setopt(network->multi, CURLMOPT_MAXCONNECTS, kMaxConnectionsPerHost * 4);
        // New TLS connections resume an earlier session instead of a full handshake.
        curl_share_setopt(network->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        network_ = std::move(network);
        try {
            thread_ = startSdkThread("norv-http", [this] { run(); });
        } catch (const std::system_error&) {
            curl_multi_cleanup(network_->multi);
            curl_share_cleanup(network_->share);
            network_.reset();
            return false;
        }
        state_ = State::Running;
        return true;
    }

    void stopRequestedLocked() {
        if (state_ == State::Running && !stopRequested_) {
            stopRequested_ = true;
            curl_multi_wakeup(network_->multi);
        }
    }

    void stop(const char* why) {
        std::thread thread;
        std::deque<CurlRequest> cancelled;
        {
            std::lock_guard lock(mutex_);
            stopRequestedLocked();
            if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
                thread = std::move(thread_);
            }
            stopReason_ = why;
            if (state_ == State::Idle) {
                cancelled.swap(incoming_);
            }
            state_ = State::Stopped;
        }
        if (thread.joinable()) {
            thread.join();
        }
        for (CurlRequest& request : cancelled) {
            request.cancel(why);
        }
    }

    // In the child after fork(): the parent's thread is not here, and its requests are the
    // parent's alone. A later send starts a network of the child's own.
    void abandonParentsNetwork() {
        if (state_ != State::Running) {
            return;
        }
        static_cast<void>(network_.release());
        static_cast<void>(new std::deque<CurlRequest>(std::move(incoming_)));
        abandonParentsThread(thread_);
        incoming_.clear();
        state_ = State::Idle;
        stopRequested_ = false;
        sleepsWithRoom_ = false;
        appliedVersion_ = 0;
    }

    void run() {
        Network& network = *network_;
        network.transfers.reserve(kMaxTransfers);
        network.idle.reserve(kMaxTransfers);
        // The requests a turn moves out of the shared list: one vector for every turn.
        std::vector<CurlRequest> taken;
        taken.reserve(kMaxTransfers);
        std::unique_lock lock(mutex_);
        while (!stopRequested_) {
            while (!incoming_.empty() && taken.size() < network.room()) {
                taken.push_back(std::move(incoming_.front()));
                incoming_.pop_front();
            }
            std::optional<Settings> settings;
            if (settings_.version != appliedVersion_) {
                settings = settings_;
            }
            const std::uint64_t cancels = cancelsAsked_;
            lock.unlock();
            if (settings) {
                apply(network, *settings);
            }
            if (cancels != cancelsMadeHere_) {
                cancelNotStarted(network);
                cancelsMadeHere_ = cancels;
                std::lock_guard made(mutex_);
                cancelsMade_ = cancels;
                cancelsDone_.notify_all();
            }
            for (CurlRequest& request : taken) {
                begin(network, std::move(request));
            }
            taken.clear();
            int running = 0;
            curl_multi_perform(network.multi, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(network.multi, &left)) {
                if (message->msg == CURLMSG_DONE) {
                    finish(network, message->easy_handle, message->data.result);
                }
            }
            lock.lock();
            if (stopRequested_ || (!incoming_.empty() && network.room() > 0)) {
                continue;
            }
            // A new request wakes the thread only if curl has room for it; else an answer will.
            sleepsWithRoom_ = network.room() > 0;
            lock.unlock();
            curl_multi_poll(network.multi, nullptr, 0,
                            network.running == 0 ? kIdlePollMilliseconds : kPollMilliseconds, nullptr);
            lock.lock();
            sleepsWithRoom_ = false;
        }
        std::deque<CurlRequest> waiting;
        waiting.swap(incoming_);
        const std::string why = stopReason_;
        const bool deleteThis = deleteWhenStopped_;
        state_ = State::Stopped;
        cancelsDone_.notify_all();
        lock.unlock();
        for (auto& transfer : network.transfers) {
            if (transfer->busy()) {
                curl_multi_remove_handle(network.multi, transfer->easy());
                transfer->takeBack().cancel(why.c_str());
            }
        }
        for (CurlRequest& request : waiting) {
            request.cancel(why.c_str());
        }
        network.idle.clear();
        network.transfers.clear();
        curl_multi_cleanup(network.multi);
        curl_share_cleanup(network.share);
        curl_slist_free_all(network.connectTo);
        if (deleteThis) {
            delete this;
        }
    }

    void cancelNotStarted(Network& network) {
        const std::uint64_t before = cancelBefore_.load(std::memory_order_acquire);
        for (auto& transfer : network.transfers) {
            if (!transfer->busy() || transfer->started() || transfer->request().sequence >= before) {
                continue;
            }
            curl_multi_remove_handle(network.multi, transfer->easy());
            CurlRequest request = transfer->takeBack();
            recycle(network, *transfer);
            request.cancel("The request was cancelled before it was sent");
        }
    }

    // Keeps the easy handle and its connections for the next request. The idle list has room
    // for every handle made.
    static void recycle(Network& network, CurlTransfer& transfer) noexcept {
        --network.running;
        network.idle.push_back(&transfer);
    }

    void apply(Network& network, const Settings& settings) {
        curl_slist_free_all(network.connectTo);
        network.connectTo = nullptr;
        for (const std::string& entry : settings.connectTo) {
            network.connectTo = curl_slist_append(network.connectTo, entry.c_str());
        }
        caInfo_ = settings.caInfo;
        appliedVersion_ = settings.version;
    }

    void begin(Network& network, CurlRequest request) noexcept {
        CurlTransfer* transfer = nullptr;
        try {
            if (network.idle.empty()) {
                network.transfers.push_back(CurlTransfer::make(network.share, &cancelBefore_,
                                                               network.proxyFromEnvironment));
                transfer = network.transfers.back().get();
            } else {
                transfer = network.idle.back();
                network.idle.pop_back();
            }
            ++network.running;
            transfer->load(std::move(request), network.connectTo, caInfo_, appliedVersion_);
            curl_multi_add_handle(network.multi, transfer->easy());
        } catch (...) {
            CurlRequest dropped = transfer ? transfer->takeBack() : std::move(request);
            if (transfer) {
                recycle(network, *transfer);
            }
            dropped.complete(std::nullopt, std::nullopt,
                             HttpClient::error(HttpClientErrorDropped, "The request was dropped: out of memory"));
        }
    }

    void finish(Network& network, CURL* easy, CURLcode result) noexcept {
        CurlTransfer& transfer = CurlTransfer::of(easy);
        long version = 0;
        if (curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version) == CURLE_OK && version != 0) {
            network.multiplexed = version >= CURL_HTTP_VERSION_2_0;
        }
        curl_multi_remove_handle(network.multi, easy);
        CurlTransfer::Outcome outcome = transfer.finish(result);
        recycle(network, transfer);
        outcome.request.complete(std::move(outcome.data), outcome.response, std::move(outcome.error));
    }

    std::mutex mutex_;
    State state_ = State::Idle;
    std::deque<CurlRequest> incoming_;
    Settings settings_;
    std::unique_ptr<Network> network_;
    std::thread thread_;
    bool sleepsWithRoom_ = false;
    bool stopRequested_ = false;
    bool deleteWhenStopped_ = false;
    std::string stopReason_;
    std::uint64_t nextSequence_ = 0;
    std::atomic<std::uint64_t> cancelBefore_{0};
    // Cancels asked for, and made by the network thread (its own count, and the one others see).
    std::uint64_t cancelsAsked_ = 0;
    std::uint64_t cancelsMade_ = 0;
    std::uint64_t cancelsMadeHere_ = 0;
    std::condition_variable cancelsDone_;
    // The network thread's copy of the settings.
    std::uint64_t appliedVersion_ = 0;
    std::string caInfo_;
};

CurlHttpClient::CurlHttpClient() : impl_(new Impl) {}

CurlHttpClient::~CurlHttpClient() { Impl::destroy(impl_.release()); }

void CurlHttpClient::send(HttpRequest request, Completion completion) {
    impl_->send(std::move(request), std::move(completion));
}

void CurlHttpClient::cancelUnsent() { impl_->cancelUnsent(); }

void CurlHttpClient::connectTo(const std::string& hostAndPort, const std::string& addressAndPort) {
    impl_->connectTo(hostAndPort, addressAndPort);
}

void CurlHttpClient::setCaInfo(const std::string& path) { impl_->setCaInfo(path); }

}  // namespace NorvAnalytic
