#include <NorvAnalytic/CurlHttpClient.h>
#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/SdkThread.h"

namespace NorvAnalytic {

namespace {

constexpr long kMaxConnectionsPerHost = 6;
// Requests in curl at once. Over HTTP/2 they are streams on one connection; over HTTP/1.1 curl
// runs six and queues the rest until a connection is free.
constexpr std::size_t kMaxTransfers = 64;
constexpr curl_off_t kMaxAnswerBytes = 1 << 20;
constexpr long kIdleTimeoutSeconds = 60;
// A server that trickles its answer slowly enough to pass the idle check still ends here.
constexpr long kWholeRequestTimeoutSeconds = 300;
constexpr long kMaxRedirects = 16;
constexpr int kPollMilliseconds = 1000;

using Completion = HttpClient::Completion;

struct Request {
    HttpRequest request;
    Completion completion;
};

// Runs a completion on our thread: nothing it throws may leave it.
void complete(Completion& completion, std::optional<std::string> data,
              std::optional<HttpResponse> response, std::optional<Error> error) noexcept {
    try {
        completion(std::move(data), response, std::move(error));
    } catch (...) {
    }
}

void cancel(Request& request, const char* why) noexcept {
    complete(request.completion, std::nullopt, std::nullopt,
             HttpClient::error(HttpClientErrorCancelled, why));
}

// One easy handle, kept for the next request, and what its request needs while curl works.
struct Transfer {
    CURL* easy = nullptr;
    Request request;
    std::string answer;
    bool tooLong = false;
    std::uint64_t settingsVersion = 0;
    char errorText[CURL_ERROR_SIZE] = {};
};

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
    std::vector<std::unique_ptr<Transfer>> idle;
    curl_slist* connectTo = nullptr;
};

std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    if (transfer->answer.size() + length > static_cast<std::size_t>(kMaxAnswerBytes)) {
        transfer->tooLong = true;
        return 0;  // curl stops reading this answer
    }
    try {
        transfer->answer.append(bytes, length);
    } catch (...) {
        return 0;
    }
    return length;
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
            complete(completion, std::nullopt, std::nullopt,
                     HttpClient::error(HttpClientErrorCancelled,
                                       "The request was not sent: the process is exiting"));
            return;
        }
        if (incoming_.size() >= kMaxWaitingRequests) {
            lock.unlock();
            complete(completion, std::nullopt, std::nullopt,
                     HttpClient::error(HttpClientErrorDropped,
                                       "The request was dropped: too many requests were waiting"));
            return;
        }
        incoming_.push_back({std::move(request), std::move(completion)});
        if (state_ == State::Idle && !start()) {
            Request unsent = std::move(incoming_.back());
            incoming_.pop_back();
            lock.unlock();
            complete(unsent.completion, std::nullopt, std::nullopt,
                     HttpClient::error(HttpClientErrorTransport,
                                       "The request was not sent: no network thread could start"));
        } else if (sleepsWithRoom_) {
            sleepsWithRoom_ = false;
            curl_multi_wakeup(network_->multi);
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
        std::deque<Request> cancelled;
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
        for (Request& request : cancelled) {
            cancel(request, why);
        }
    }

    // In the child after fork(): the parent's thread is not here, and its requests are the
    // parent's alone. A later send starts a network of the child's own.
    void abandonParentsNetwork() {
        if (state_ != State::Running) {
            return;
        }
        static_cast<void>(network_.release());
        static_cast<void>(new std::deque<Request>(std::move(incoming_)));
        abandonParentsThread(thread_);
        incoming_.clear();
        state_ = State::Idle;
        stopRequested_ = false;
        sleepsWithRoom_ = false;
        appliedVersion_ = 0;
    }

    void run() {
        Network& network = *network_;
        std::vector<std::unique_ptr<Transfer>> active;
        active.reserve(kMaxTransfers);
        std::unique_lock lock(mutex_);
        while (!stopRequested_) {
            std::vector<Request> taken;
            while (!incoming_.empty() && active.size() + taken.size() < kMaxTransfers) {
                taken.push_back(std::move(incoming_.front()));
                incoming_.pop_front();
            }
            std::optional<Settings> settings;
            if (settings_.version != appliedVersion_) {
                settings = settings_;
            }
            lock.unlock();
            if (settings) {
                apply(network, *settings);
            }
            for (Request& request : taken) {
                begin(network, active, std::move(request));
            }
            int running = 0;
            curl_multi_perform(network.multi, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(network.multi, &left)) {
                if (message->msg == CURLMSG_DONE) {
                    finish(network, active, message->easy_handle, message->data.result);
                }
            }
            lock.lock();
            if (stopRequested_ || (!incoming_.empty() && active.size() < kMaxTransfers)) {
                continue;
            }
            // A new request wakes the thread only if curl has room for it; else an answer will.
            sleepsWithRoom_ = active.size() < kMaxTransfers;
            lock.unlock();
            curl_multi_poll(network.multi, nullptr, 0, kPollMilliseconds, nullptr);
            lock.lock();
            sleepsWithRoom_ = false;
        }
        std::deque<Request> waiting;
        waiting.swap(incoming_);
        const std::string why = stopReason_;
        const bool deleteThis = deleteWhenStopped_;
        state_ = State::Stopped;
        lock.unlock();
        for (auto& transfer : active) {
            curl_multi_remove_handle(network.multi, transfer->easy);
            cancel(transfer->request, why.c_str());
            curl_easy_cleanup(transfer->easy);
        }
        for (Request& request : waiting) {
            cancel(request, why.c_str());
        }
        for (auto& transfer : network.idle) {
            curl_easy_cleanup(transfer->easy);
        }
        curl_multi_cleanup(network.multi);
        curl_share_cleanup(network.share);
        curl_slist_free_all(network.connectTo);
        if (deleteThis) {
            delete this;
        }
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

    std::unique_ptr<Transfer> takeTransfer(Network& network) {
        if (!network.idle.empty()) {
            std::unique_ptr<Transfer> transfer = std::move(network.idle.back());
            network.idle.pop_back();
            return transfer;
        }
        auto transfer = std::make_unique<Transfer>();
        CURL* easy = transfer->easy = curl_easy_init();
        if (easy == nullptr) {
            throw std::bad_alloc();
        }
        curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &receive);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
        curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, kMaxAnswerBytes);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kIdleTimeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kIdleTimeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_TIMEOUT, kWholeRequestTimeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_SHARE, network.share);
        return transfer;
    }

    void begin(Network& network, std::vector<std::unique_ptr<Transfer>>& active,
               Request request) noexcept {
        std::unique_ptr<Transfer> transfer;
        try {
            transfer = takeTransfer(network);
        } catch (...) {
            complete(request.completion, std::nullopt, std::nullopt,
                     HttpClient::error(HttpClientErrorDropped,
                                       "The request was dropped: out of memory"));
            return;
        }
        CURL* easy = transfer->easy;
        if (transfer->settingsVersion != appliedVersion_) {
            curl_easy_setopt(easy, CURLOPT_CONNECT_TO, network.connectTo);
            curl_easy_setopt(easy, CURLOPT_CAINFO, caInfo_.empty() ? nullptr : caInfo_.c_str());
            transfer->settingsVersion = appliedVersion_;
        }
        transfer->request = std::move(request);
        const HttpRequest& http = transfer->request.request;
        curl_easy_setopt(easy, CURLOPT_URL, http.url.c_str());
        // Over TLS, wait for the first connection's protocol: HTTP/2 carries every request on it.
        // A plain one is HTTP/1.1, whose first answer may be long in coming.
        curl_easy_setopt(easy, CURLOPT_PIPEWAIT, http.url.starts_with("https:") ? 1L : 0L);
        if (http.method == "GET") {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
        } else {
            // The body stays in the request until the transfer ends: curl reads it from there.
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(http.body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, http.body.c_str());
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST,
                             http.method == "POST" ? nullptr : http.method.c_str());
        }
        transfer->errorText[0] = '\0';
        curl_multi_add_handle(network.multi, easy);
        active.push_back(std::move(transfer));
    }

    void finish(Network& network, std::vector<std::unique_ptr<Transfer>>& active, CURL* easy,
                CURLcode result) noexcept {
        const auto found = std::ranges::find_if(
            active, [easy](const std::unique_ptr<Transfer>& transfer) { return transfer->easy == easy; });
        std::unique_ptr<Transfer> transfer = std::move(*found);
        active.erase(found);
        curl_multi_remove_handle(network.multi, easy);
        long status = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        const bool cut = transfer->tooLong || result == CURLE_FILESIZE_EXCEEDED;
        Request request = std::move(transfer->request);
        std::optional<std::string> data;
        std::optional<Error> error;
        if (status > 0 && (result == CURLE_OK || cut)) {
            // An answer over the cap is no document the SDK reads, but its status still counts.
            data = cut ? std::string() : std::move(transfer->answer);
        } else {
            error = HttpClient::error(HttpClientErrorTransport, transfer->errorText[0] != '\0'
                                                                  ? transfer->errorText
                                                                  : curl_easy_strerror(result));
        }
        transfer->answer = std::string();
        transfer->tooLong = false;
        request.request = HttpRequest();
        try {
            network.idle.push_back(std::move(transfer));
        } catch (...) {
            curl_easy_cleanup(easy);
        }
        complete(request.completion, std::move(data),
                 data ? std::optional<HttpResponse>(HttpResponse{status}) : std::nullopt,
                 std::move(error));
    }

    std::mutex mutex_;
    State state_ = State::Idle;
    std::deque<Request> incoming_;
    Settings settings_;
    std::unique_ptr<Network> network_;
    std::thread thread_;
    bool sleepsWithRoom_ = false;
    bool stopRequested_ = false;
    bool deleteWhenStopped_ = false;
    std::string stopReason_;
    // The network thread's copy of the settings.
    std::uint64_t appliedVersion_ = 0;
    std::string caInfo_;
};

CurlHttpClient::CurlHttpClient() : impl_(new Impl) {}

CurlHttpClient::~CurlHttpClient() { Impl::destroy(impl_.release()); }

void CurlHttpClient::send(HttpRequest request, Completion completion) {
    impl_->send(std::move(request), std::move(completion));
}

void CurlHttpClient::connectTo(const std::string& hostAndPort, const std::string& addressAndPort) {
    impl_->connectTo(hostAndPort, addressAndPort);
}

void CurlHttpClient::setCaInfo(const std::string& path) { impl_->setCaInfo(path); }

}  // namespace NorvAnalytic
