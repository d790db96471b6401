#include <NorvAnalytic/CurlHttpClient.h>
#include <curl/curl.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/PendingRequest.h"
#include "platform/PipelinedConnection.h"

namespace NorvAnalytic {

namespace {

constexpr long kMaxConnectionsPerHost = 6;
// No more easy handles than connections sit in the multi handle at once; the rest wait in our
// own FIFO. A handle beyond the connection limit would enter curl's pending list, which curl
// scans on every change and which, on libcurl 7.88, can stall until the next poll time-out.
constexpr std::size_t kMaxActiveTransfers = kMaxConnectionsPerHost;
// Distinct URLs remembered with their parsed form; the SDK posts to one.
constexpr std::size_t kMaxRoutes = 64;
// How many waiting requests a hand-over looks past when their server has no room, so that a
// server that never answers holds its own requests only, not those for other servers. Each
// server's requests still leave in order.
constexpr std::size_t kLookAhead = 64;
constexpr long kIdleTimeoutSeconds = 60;
// Requests written ahead of their answers on one kept connection, for a server that passed
// the trial. A curl transfer costs a send, a receive and a poll per request and libcurl's own
// work besides; on loopback it tops out near 30,000 requests a second. Written back to back,
// answers arrive many to a read: 16 deep gave 2.5 times the events per second of one at a
// time over plain HTTP, and deeper gained nothing measurable.
constexpr std::size_t kDefaultPipelineDepth = 16;
constexpr long kMaxRedirects = 16;
constexpr int kPollTimeoutMilliseconds = 1000;

// curl reads these itself; a request that a proxy would carry is left to curl whole.
bool proxyConfigured() {
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && value[0] != '\0') {
            return true;
        }
    }
    return false;
}

bool isRedirect(const HttpAnswerParser::Answer& answer) {
    const long status = answer.status;
    return !answer.location.empty() &&
           (status == 301 || status == 302 || status == 303 || status == 307 || status == 308);
}

constexpr const char* kDestroyedMessage =
    "The request was cancelled: its HTTP client was destroyed";
constexpr const char* kStoppedMessage = "The request was not sent: the process is exiting";
constexpr const char* kOutOfMemoryMessage = "The request was dropped: out of memory";

}  // namespace

class CurlHttpClient::Impl {
public:
    enum class StopMode { CompletePending, DropPending };

    // The registry is only ever taken before a client's own mutex, never while holding it.
    Impl() {
        initializeCurlOnce();
        multi_ = curl_multi_init();
        // New connections resume earlier TLS sessions instead of a full handshake each.
        share_ = curl_share_init();
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        proxied_ = proxyConfigured();
        Registry& registry = Registry::instance();
        std::lock_guard lock(registry.mutex);
        registry.clients.insert(this);
    }

    ~Impl() {
        {
            Registry& registry = Registry::instance();
            std::lock_guard lock(registry.mutex);
            registry.clients.erase(this);
        }
        stop(StopMode::CompletePending);
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void send(HttpRequest request, Completion completion) {
        std::vector<Pending> dropped;
        std::string burst;
        {
            std::unique_lock lock(mutex_);
            if (state_ == State::Stopped) {
                lock.unlock();
                completion(std::nullopt, std::nullopt, std::string(kStoppedMessage));
                return;
            }
            const bool wasIdle = queue_.empty();
            waitingBytes_ += request.body.size();
            queue_.push_back({std::move(request), std::move(completion)});
            while (!queue_.empty() &&
                   (queue_.size() > limits_.maxRequests || waitingBytes_ > limits_.maxBytes)) {
                waitingBytes_ -= queue_.front().request.body.size();
                dropped.push_back(std::move(queue_.front()));
                queue_.pop_front();
                ++droppedCount_;
            }
            if (!dropped.empty() && !dropping_) {
                dropping_ = true;
                burst = burstMessageLocked();
            }
            if (state_ == State::Idle) {
                startLocked();
            }
            // Behind other waiting requests this one needs no wake: the thread takes more as
            // soon as answers make room, and answers wake it.
            if (wasIdle) {
                wakeLocked();
            }
        }
        for (Pending& pending : dropped) {
            pending.completion(std::nullopt, std::nullopt, std::string(kDroppedMessage));
        }
        if (!burst.empty() && Diagnostics::isOn()) {
            Diagnostics::report(DiagnosticLevel::Warning, burst);
        }
    }

    void setQueueLimits(std::size_t maxRequests, std::size_t maxBytes) {
        std::lock_guard lock(mutex_);
        limits_ = {std::max<std::size_t>(maxRequests, 1), maxBytes};
    }

    std::uint64_t droppedRequests() {
        std::lock_guard lock(mutex_);
        return droppedCount_;
    }

    void connectTo(const std::string& hostAndPort, const std::string& addressAndPort) {
        std::lock_guard lock(mutex_);
        const std::string prefix = hostAndPort + ":";
        std::erase_if(config_.connectTo,
                      [&](const std::string& entry) { return entry.starts_with(prefix); });
        config_.connectTo.push_back(prefix + addressAndPort);
        ++configVersion_;
    }

    void setCaInfo(const std::string& path) {
        std::lock_guard lock(mutex_);
        config_.caInfo = path;
        ++configVersion_;
    }

    void setPipelineDepth(std::size_t requests) {
        std::lock_guard lock(mutex_);
        config_.pipelineDepth = std::max<std::size_t>(requests, 1);
        ++configVersion_;
    }

    // Stops the network thread and waits for it. Pending requests either complete with an
    // error (a client that is destroyed) or are dropped unseen (a process that is exiting).
    // A client that never started is stopped for good, so nothing starts during exit.
    void stop(StopMode mode) {
        std::thread thread;
        {
            std::lock_guard lock(mutex_);
            if (state_ == State::Idle) {
                state_ = State::Stopped;
                curl_multi_cleanup(multi_);
                curl_share_cleanup(share_);
                return;
            }
            if (state_ == State::Running && !stopRequested_) {
                stopRequested_ = true;
                stopMode_ = mode;
                curl_multi_wakeup(multi_);
            }
            if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
                thread = std::move(thread_);
            }
        }
        if (thread.joinable()) {
            thread.join();
        }
    }

private:
    enum class State { Idle, Running, Stopped };

    using Pending = PendingRequest;
    using Clock = PipelinedConnection::Clock;

    struct Limits {
        std::size_t maxRequests = CurlHttpClient::kDefaultMaxWaitingRequests;
        std::size_t maxBytes = CurlHttpClient::kDefaultMaxWaitingBytes;
    };

    struct Config {
        std::vector<std::string> connectTo;
        std::string caInfo;
        std::size_t pipelineDepth = kDefaultPipelineDepth;
    };

    // A scheme, host and port that POSTs go to over kept connections of our own.
    struct Origin {
        // Some servers read a second request along with the first and then drop it (cpp-httplib
        // does), and every later answer on that connection would then belong to the request
        // before it. So a server gets several requests at once only after a trial: two in one
        // write, nothing more until both are answered. One that fails it never gets two again.
        enum class Pipelining { Untried, Trying, Proven, Refused };

        std::string connectUrl;
        bool encrypted = false;
        Pipelining pipelining = Pipelining::Untried;
        std::vector<std::unique_ptr<PipelinedConnection>> connections;
        // Requests it can still take in the current hand-over.
        std::size_t budget = 0;
        std::uint64_t budgetTake = 0;
    };

    // Where a URL's POSTs go: an origin, and the request's head up to the body's length.
    struct Route {
        Origin* origin = nullptr;
        std::string headPrefix;
    };

    // One easy handle and what its current request needs while curl works on it.
    struct Transfer {
        CURL* easy = nullptr;
        Pending pending;
        bool inMulti = false;
        std::string received;
        std::uint64_t settingsVersion = UINT64_MAX;
        bool answerTooLong = false;
        bool outOfMemory = false;
        char errorBuffer[CURL_ERROR_SIZE] = {};
    };

    // The clients whose threads the exit hook stops.
    struct Registry {
        std::mutex mutex;
        std::set<Impl*> clients;

        static Registry& instance() {
            static auto* registry = new Registry;
            return *registry;
        }
    };

    // Runs curl's global set-up once and only then registers the exit hook, so that the hook
    // runs before the TLS library's own clean-up, which curl_global_init registered first.
    static void initializeCurlOnce() {
        static std::once_flag once;
        std::call_once(once, [] {
            curl_global_init(CURL_GLOBAL_DEFAULT);
            std::atexit(&Impl::stopAllAtExit);
        });
    }

    // The default client is never destroyed: at exit its thread stops here, before main's
    // return finishes, so no transfer is left running into the process's tear-down.
    static void stopAllAtExit() {
        Registry& registry = Registry::instance();
        std::lock_guard lock(registry.mutex);
        for (Impl* impl : registry.clients) {
            impl->stop(StopMode::DropPending);
        }
    }

    // Said once per burst: drops go on silently until the network thread takes a request again.
    std::string burstMessageLocked() const {
        return "Requests waiting for a connection reached the limit (" +
               std::to_string(limits_.maxRequests) + " requests, " +
               std::to_string(limits_.maxBytes) +
               " bytes of bodies): the oldest waiting events are being dropped (" +
               std::to_string(droppedCount_) + " dropped so far)";
    }

    void startLocked() {
        state_ = State::Running;
        thread_ = std::thread([this] { run(); });
    }

    // Several sends in a row cost one wakeup: the flag stays set until the thread has looked.
    void wakeLocked() {
        if (!wakePending_) {
            wakePending_ = true;
            curl_multi_wakeup(multi_);
        }
    }

    void run() {
        pthread_setname_np(pthread_self(), "norv-http");
        // A peer that closes mid-write must give EPIPE here, not kill a host that left SIGPIPE
        // at its default: blocked, the signal stays with this thread and is never delivered.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        transfers_.reserve(kMaxActiveTransfers);
        idle_.reserve(kMaxActiveTransfers);
        batch_.reserve(kMaxActiveTransfers);
        while (true) {
            try {
                if (!takeNewRequests()) {
                    break;
                }
                int running = 0;
                curl_multi_perform(multi_, &running);
                collectFinishedTransfers();
                serviceConnections();
                finishResults();
                if (hasRoomForQueuedRequests()) {
                    continue;
                }
                poll();
            } catch (...) {
                // Out of memory in the middle of a round: what it held is dropped, the thread
                // goes on.
                results_ = PipelinedConnection::Results();
            }
        }
        shutDown();
    }

    // Starts the queued requests that fit; false once a stop was requested. Only the hand-over
    // happens under the lock, so a send() never waits while handles are set up or bytes copied.
    bool takeNewRequests() {
        {
            std::lock_guard lock(mutex_);
            wakePending_ = false;
            if (stopRequested_) {
                return false;
            }
            if (appliedConfigVersion_ != configVersion_) {
                applyConfigLocked();
            }
            if (routes_.size() >= kMaxRoutes) {
                forgetRoutes();
            }
            ++take_;
            std::size_t curlRoom = kMaxActiveTransfers - active_;
            std::size_t passed = 0;
            for (auto waiting = queue_.begin(); waiting != queue_.end() && passed < kLookAhead;) {
                Route* route = routeFor(*waiting);
                if (!reserve(route, curlRoom)) {
                    ++waiting;
                    ++passed;
                    continue;
                }
                waitingBytes_ -= waiting->request.body.size();
                batch_.emplace_back(std::move(*waiting), route);
                waiting = queue_.erase(waiting);
                dropping_ = false;
            }
        }
        for (std::size_t index = 0; index < batch_.size(); ++index) {
            auto& [pending, route] = batch_[index];
            if (route == nullptr) {
                startTransfer(std::move(pending));
            } else if (index + 1 < batch_.size() && batch_[index + 1].second == route &&
                       startTrial(*route, pending, batch_[index + 1].first)) {
                ++index;
            } else {
                place(*route, std::move(pending));
            }
        }
        batch_.clear();
        return true;
    }

    std::size_t depth(const Origin& origin) const {
        return origin.pipelining == Origin::Pipelining::Proven ? pipelineDepth_ : 1;
    }

    // Sends the two requests as a trial on an idle connection, if the origin is untried.
    bool startTrial(Route& route, Pending& first, Pending& second) noexcept {
        Origin& origin = *route.origin;
        if (origin.pipelining != Origin::Pipelining::Untried || pipelineDepth_ < 2) {
            return false;
        }
        for (const auto& connection : origin.connections) {
            if (connection->isReadyForTrial() && !connection->isRetired()) {
                origin.pipelining = Origin::Pipelining::Trying;
                connection->startTrial();
                try {
                    write(*connection, route, std::move(first));
                    write(*connection, route, std::move(second));
                } catch (...) {
                    // Out of memory: what was not written is dropped with its completion.
                }
                return true;
            }
        }
        return false;
    }

    static void learnPipelining(Origin& origin, PipelinedConnection& connection) {
        switch (connection.takeTrialOutcome()) {
            case PipelinedConnection::Trial::Passed:
                origin.pipelining = Origin::Pipelining::Proven;
                break;
            case PipelinedConnection::Trial::Failed:
                origin.pipelining = Origin::Pipelining::Refused;
                break;
            case PipelinedConnection::Trial::Inconclusive:
                origin.pipelining = Origin::Pipelining::Untried;
                break;
            default:
                break;
        }
    }

    // Takes one place for a request on its route in this hand-over, if there is one.
    bool reserve(Route* route, std::size_t& curlRoom) {
        if (route == nullptr) {
            return curlRoom > 0 && curlRoom-- > 0;
        }
        Origin& origin = *route->origin;
        if (origin.budgetTake != take_) {
            origin.budget = freeSlots(origin);
            origin.budgetTake = take_;
        }
        return origin.budget > 0 && origin.budget-- > 0;
    }

    std::size_t freeSlots(const Origin& origin) const {
        const std::size_t allowed = depth(origin);
        std::size_t live = 0;
        std::size_t free = 0;
        for (const auto& connection : origin.connections) {
            if (!connection->isClosed() && !connection->isRetired()) {
                ++live;
                free += connection->room(allowed);
            }
        }
        return free + (live < kMaxConnectionsPerHost ? kMaxConnectionsPerHost - live : 0);
    }

    // Null for a request that curl carries itself: another method, a proxy, a redirect to
    // follow, or a URL that is not plain http(s).
    Route* routeFor(const Pending& pending) noexcept {
        if (proxied_ || pending.viaCurl || pending.request.method != "POST") {
            return nullptr;
        }
        try {
            // A hand-over looks at many requests under the lock, nearly all for the same URL.
            if (lastRoute_ == nullptr || pending.request.url != lastUrl_) {
                auto found = routes_.find(pending.request.url);
                if (found == routes_.end()) {
                    found =
                        routes_.emplace(pending.request.url, parseRoute(pending.request.url)).first;
                }
                lastUrl_ = pending.request.url;
                lastRoute_ = &found->second;
            }
            return lastRoute_->origin != nullptr ? lastRoute_ : nullptr;
        } catch (...) {
            return nullptr;
        }
    }

    Route parseRoute(const std::string& url) {
        Route route;
        // Printable ASCII only: anything curl would have to encode or reject stays with curl.
        if (std::ranges::any_of(url, [](char c) { return c <= ' ' || c > '~'; })) {
            return route;
        }
        std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
        const auto part = [&](CURLUPart which, unsigned flags) -> std::optional<std::string> {
            char* value = nullptr;
            if (curl_url_get(parsed.get(), which, &value, flags) != CURLUE_OK) {
                return std::nullopt;
            }
            std::string text(value);
            curl_free(value);
            return text;
        };
        if (parsed == nullptr ||
            curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
            part(CURLUPART_USER, 0)) {
            return route;
        }
        const auto scheme = part(CURLUPART_SCHEME, 0);
        const auto host = part(CURLUPART_HOST, 0);
        const auto port = part(CURLUPART_PORT, CURLU_DEFAULT_PORT);
        const auto path = part(CURLUPART_PATH, 0);
        const auto query = part(CURLUPART_QUERY, 0);
        if (!scheme || (*scheme != "http" && *scheme != "https") || !host || !port || !path) {
            return route;
        }
        const bool defaultPort = *port == (*scheme == "https" ? "443" : "80");
        const std::string connectUrl = *scheme + "://" + *host + ":" + *port + "/";
        route.origin = originFor(connectUrl, *scheme == "https");
        // The head a libcurl form POST has, so the server sees the same request either way.
        route.headPrefix = "POST " + *path + (query ? "?" + *query : "") +
                           " HTTP/1.1\r\nHost: " + *host + (defaultPort ? "" : ":" + *port) +
                           "\r\nAccept: */*\r\nContent-Length: ";
        return route;
    }

    Origin* originFor(const std::string& connectUrl, bool encrypted) {
        for (const auto& origin : origins_) {
            if (origin->connectUrl == connectUrl) {
                return origin.get();
            }
        }
        auto origin = std::make_unique<Origin>();
        origin->connectUrl = connectUrl;
        origin->encrypted = encrypted;
        origins_.push_back(std::move(origin));
        return origins_.back().get();
    }

    // Keeps the remembered URLs bounded; origins without a connection go with them.
    void forgetRoutes() {
        routes_.clear();
        lastRoute_ = nullptr;
        std::erase_if(origins_, [](const auto& origin) { return origin->connections.empty(); });
    }

    // The request goes to an idle open connection, else to a new one while there may be more,
    // else behind the fewest requests on a connection that has room.
    void place(Route& route, Pending pending) noexcept {
        try {
            Origin& origin = *route.origin;
            const std::size_t allowed = depth(origin);
            PipelinedConnection* chosen = nullptr;
            std::size_t live = 0;
            for (const auto& connection : origin.connections) {
                if (connection->isClosed() || connection->isRetired()) {
                    continue;
                }
                ++live;
                if (chosen == nullptr && connection->isOpen() && connection->load() == 0) {
                    chosen = connection.get();
                }
            }
            if (chosen == nullptr && live < kMaxConnectionsPerHost) {
                chosen = openConnection(origin);
            }
            for (const auto& connection : origin.connections) {
                if (chosen == nullptr && connection->room(allowed) > 0) {
                    chosen = connection.get();
                } else if (connection->room(allowed) > 0 && connection->load() < chosen->load()) {
                    chosen = connection.get();
                }
            }
            if (chosen == nullptr) {
                // A trial took two places where one was counted: this one waits for the next.
                results_.again.push_back(std::move(pending));
                return;
            }
            write(*chosen, route, std::move(pending));
        } catch (...) {
            dropForLackOfMemory(pending);
        }
    }

    void write(PipelinedConnection& connection, const Route& route, Pending pending) {
        head_ = route.headPrefix;
        std::array<char, 24> digits{};
        const auto end =
            std::to_chars(digits.data(), digits.data() + digits.size(), pending.request.body.size())
                .ptr;
        head_.append(digits.data(), end);
        head_ += "\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n";
        connection.add(std::move(pending), head_);
    }

    // A connect-only transfer: curl looks the name up, connects and does TLS, then leaves
    // the connection to us while the handle stays in the multi handle.
    PipelinedConnection* openConnection(Origin& origin) {
        CURL* easy = curl_easy_init();
        if (easy == nullptr) {
            return nullptr;
        }
        auto connection = std::make_unique<PipelinedConnection>(multi_, easy, origin.encrypted);
        curl_easy_setopt(easy, CURLOPT_URL, origin.connectUrl.c_str());
        curl_easy_setopt(easy, CURLOPT_CONNECT_ONLY, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &Impl::readAhead);
        applyCommonSettings(easy);
        origin.connections.push_back(std::move(connection));
        if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
            origin.connections.pop_back();
            return nullptr;
        }
        return origin.connections.back().get();
    }

    // Without read-ahead the TLS library takes each record with two receives, header then
    // body; with it, the answers of a whole pipeline come in one. libcurl is built on OpenSSL
    // here; with another TLS library curl refuses the option and nothing changes.
    static CURLcode readAhead(CURL*, void* context, void*) noexcept {
        SSL_CTX_set_read_ahead(static_cast<SSL_CTX*>(context), 1);
        return CURLE_OK;
    }

    void startTransfer(Pending pending) noexcept {
        Transfer* transfer = freeTransfer();
        if (transfer == nullptr) {
            dropForLackOfMemory(pending);
            return;
        }
        transfer->pending = std::move(pending);
        configure(*transfer);
        curl_multi_add_handle(multi_, transfer->easy);
        transfer->inMulti = true;
        ++active_;
    }

    // Completions free places without any socket event: queued requests must not wait for
    // the poll to time out.
    bool hasRoomForQueuedRequests() {
        std::lock_guard lock(mutex_);
        ++take_;
        std::size_t curlRoom = kMaxActiveTransfers - active_;
        std::size_t looked = 0;
        for (const Pending& waiting : queue_) {
            if (reserve(routeFor(waiting), curlRoom)) {
                return true;
            }
            if (++looked == kLookAhead) {
                break;
            }
        }
        return false;
    }

    void applyConfigLocked() {
        curl_slist_free_all(connectTo_);
        connectTo_ = nullptr;
        for (const std::string& entry : config_.connectTo) {
            connectTo_ = curl_slist_append(connectTo_, entry.c_str());
        }
        caInfo_ = config_.caInfo;
        pipelineDepth_ = config_.pipelineDepth;
        appliedConfigVersion_ = configVersion_;
        // Connections made with the old settings finish what they carry, then close.
        for (const auto& origin : origins_) {
            for (const auto& connection : origin->connections) {
                connection->retire();
            }
        }
    }

    // Null when no handle can be made: that one request is then dropped.
    Transfer* freeTransfer() noexcept {
        if (idle_.empty()) {
            std::unique_ptr<Transfer> transfer(new (std::nothrow) Transfer);
            if (transfer == nullptr || (transfer->easy = curl_easy_init()) == nullptr) {
                return nullptr;
            }
            // Both vectors hold capacity for every transfer there can be.
            idle_.push_back(transfer.get());
            transfers_.push_back(std::move(transfer));
        }
        Transfer* transfer = idle_.back();
        idle_.pop_back();
        return transfer;
    }

    // Per request only what differs between requests is set: the handle keeps the rest, and
    // its place in the multi handle's connection and DNS caches.
    void configure(Transfer& transfer) {
        CURL* easy = transfer.easy;
        if (transfer.settingsVersion != appliedConfigVersion_) {
            applySettings(transfer);
        }
        transfer.answerTooLong = false;
        transfer.outOfMemory = false;
        transfer.errorBuffer[0] = '\0';
        const HttpRequest& request = transfer.pending.request;
        curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
        if (request.method == "GET") {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
            return;
        }
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST,
                         request.method == "POST" ? nullptr : request.method.c_str());
    }

    void applySettings(Transfer& transfer) {
        CURL* easy = transfer.easy;
        curl_easy_reset(easy);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
        applyCommonSettings(easy);
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kIdleTimeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Impl::receive);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
        transfer.settingsVersion = appliedConfigVersion_;
    }

    // What curl's transfers and the pipelined connections' openings share.
    void applyCommonSettings(CURL* easy) {
        curl_easy_setopt(easy, CURLOPT_SHARE, share_);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        // Pipelined connections speak HTTP/1.1, so TLS must not settle on h2. For curl's own
        // transfers too: each is one small POST answered at once, and HTTP/2's framing and
        // flow control cost CPU on both ends (over TLS on loopback, 1.5 times slower).
        curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kIdleTimeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_CONNECT_TO, connectTo_);
        curl_easy_setopt(easy, CURLOPT_CAINFO, caInfo_.empty() ? nullptr : caInfo_.c_str());
    }

    // Any count other than the one offered makes curl end the transfer with a write error.
    static size_t receive(char* bytes, size_t size, size_t count, void* data) noexcept {
        auto& transfer = *static_cast<Transfer*>(data);
        const std::size_t length = size * count;
        if (transfer.received.size() + length > kMaxAnswerBytes) {
            transfer.answerTooLong = true;
            return 0;
        }
        try {
            transfer.received.append(bytes, length);
        } catch (...) {
            transfer.outOfMemory = true;
            return 0;
        }
        return length;
    }

    void collectFinishedTransfers() {
        int remaining = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &remaining)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            Transfer* transfer = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
            if (transfer == nullptr) {
                // A connection opened (or not) for pipelining; its handle stays in the multi.
                if (PipelinedConnection* connection = connectionFor(message->easy_handle)) {
                    connection->opened(message->data.result, results_);
                }
                continue;
            }
            curl_multi_remove_handle(multi_, transfer->easy);
            transfer->inMulti = false;
            --active_;
            finish(*transfer, message->data.result);
            idle_.push_back(transfer);
        }
    }

    PipelinedConnection* connectionFor(CURL* easy) const {
        for (const auto& origin : origins_) {
            for (const auto& connection : origin->connections) {
                if (connection->handle() == easy) {
                    return connection.get();
                }
            }
        }
        return nullptr;
    }

    // Writes and reads on every open connection; drops the ones that closed, and the retired
    // ones once idle.
    void serviceConnections() {
        const Clock::time_point now = Clock::now();
        for (const auto& origin : origins_) {
            for (const auto& connection : origin->connections) {
                connection->service(
                    std::ranges::find(readable_, connection.get()) != readable_.end(), now,
                    results_);
                learnPipelining(*origin, *connection);
            }
            std::erase_if(origin->connections, [](const auto& connection) {
                return connection->isClosed() ||
                       (connection->isRetired() && connection->load() == 0);
            });
        }
        readable_.clear();
    }

    // Completes what the connections gave back; a redirect goes to curl, which follows it,
    // and what must be sent again goes back to the front of the queue, in order.
    void finishResults() {
        if (results_.empty()) {
            return;
        }
        for (auto& [pending, answer] : results_.answered) {
            if (isRedirect(answer)) {
                pending.viaCurl = true;
                results_.again.push_back(std::move(pending));
                continue;
            }
            complete(pending, answer.bodyTooLong ? std::string() : std::move(answer.body),
                     HttpResponse{answer.status}, std::nullopt);
        }
        for (auto& [pending, error] : results_.failed) {
            complete(pending, std::nullopt, std::nullopt, std::move(error));
        }
        results_.answered.clear();
        results_.failed.clear();
        if (!results_.again.empty()) {
            std::lock_guard lock(mutex_);
            for (auto again = results_.again.rbegin(); again != results_.again.rend(); ++again) {
                waitingBytes_ += again->request.body.size();
                queue_.push_front(std::move(*again));
            }
            results_.again.clear();
        }
    }

    // Sleeps until a socket of curl's or of a connection is ready, or a send wakes it.
    void poll() {
        waits_.clear();
        waitConnections_.clear();
        for (const auto& origin : origins_) {
            for (const auto& connection : origin->connections) {
                curl_waitfd wait{};
                if (connection->waitFor(wait)) {
                    waits_.push_back(wait);
                    waitConnections_.push_back(connection.get());
                }
            }
        }
        curl_multi_poll(multi_, waits_.data(), static_cast<unsigned>(waits_.size()),
                        kPollTimeoutMilliseconds, nullptr);
        for (std::size_t index = 0; index < waits_.size(); ++index) {
            if ((waits_[index].revents & CURL_WAIT_POLLIN) != 0) {
                readable_.push_back(waitConnections_[index]);
            }
        }
    }

    static void complete(Pending& pending, std::optional<std::string> data,
                         std::optional<HttpResponse> response,
                         std::optional<std::string> error) noexcept {
        try {
            pending.completion(std::move(data), response, std::move(error));
        } catch (...) {
            dropForLackOfMemory(pending);
        }
    }

    // Hands the transfer's outcome to its completion. Nothing thrown here reaches curl or ends
    // the thread: an allocation failure drops this one request.
    void finish(Transfer& transfer, CURLcode result) noexcept {
        Pending pending = std::move(transfer.pending);
        std::string data = std::move(transfer.received);
        transfer.received = std::string();
        try {
            if (transfer.outOfMemory) {
                throw std::bad_alloc();
            }
            long status = 0;
            curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
            if (result == CURLE_OK || transfer.answerTooLong) {
                if (transfer.answerTooLong) {
                    data = std::string();
                }
                pending.completion(std::move(data), HttpResponse{status}, std::nullopt);
            } else {
                std::string error = transfer.errorBuffer[0] != '\0'
                                        ? std::string(transfer.errorBuffer)
                                        : std::string(curl_easy_strerror(result));
                pending.completion(std::nullopt, std::nullopt, std::move(error));
            }
        } catch (...) {
            dropForLackOfMemory(pending);
        }
    }

    static void dropForLackOfMemory(Pending& pending) noexcept {
        try {
            pending.completion(std::nullopt, std::nullopt, std::string(kOutOfMemoryMessage));
        } catch (...) {
        }
    }

    // Runs last on the network thread: no further send reaches curl, every handle is freed, and
    // what was still pending is completed or dropped as the stop asked.
    void shutDown() {
        std::deque<Pending> leftover;
        StopMode mode = StopMode::DropPending;
        {
            std::lock_guard lock(mutex_);
            state_ = State::Stopped;
            mode = stopMode_;
            leftover.swap(queue_);
        }
        std::vector<Pending> cancelled;
        PipelinedConnection::Results abandoned;
        for (const auto& origin : origins_) {
            for (const auto& connection : origin->connections) {
                connection->abandon(kDestroyedMessage, abandoned);
            }
        }
        origins_.clear();
        routes_.clear();
        lastRoute_ = nullptr;
        for (auto& [pending, reason] : abandoned.failed) {
            cancelled.push_back(std::move(pending));
        }
        for (const auto& transfer : transfers_) {
            if (transfer->inMulti) {
                curl_multi_remove_handle(multi_, transfer->easy);
                cancelled.push_back(std::move(transfer->pending));
            }
            curl_easy_cleanup(transfer->easy);
        }
        transfers_.clear();
        idle_.clear();
        curl_multi_cleanup(multi_);
        curl_share_cleanup(share_);
        curl_slist_free_all(connectTo_);
        connectTo_ = nullptr;
        if (mode == StopMode::CompletePending) {
            for (Pending& pending : cancelled) {
                pending.completion(std::nullopt, std::nullopt, std::string(kDestroyedMessage));
            }
            for (Pending& pending : leftover) {
                pending.completion(std::nullopt, std::nullopt, std::string(kDestroyedMessage));
            }
        }
    }

    CURLM* multi_ = nullptr;
    CURLSH* share_ = nullptr;

    std::mutex mutex_;
    std::deque<Pending> queue_;
    std::size_t waitingBytes_ = 0;
    Limits limits_;
    std::uint64_t droppedCount_ = 0;
    bool dropping_ = false;
    State state_ = State::Idle;
    bool stopRequested_ = false;
    StopMode stopMode_ = StopMode::CompletePending;
    bool wakePending_ = false;
    Config config_;
    std::uint64_t configVersion_ = 0;

    std::thread thread_;

    // Owned by the network thread.
    std::vector<std::unique_ptr<Transfer>> transfers_;
    std::vector<Transfer*> idle_;
    std::vector<std::pair<Pending, Route*>> batch_;
    std::size_t active_ = 0;
    bool proxied_ = false;
    std::vector<std::unique_ptr<Origin>> origins_;
    std::unordered_map<std::string, Route> routes_;
    std::string lastUrl_;
    Route* lastRoute_ = nullptr;
    std::uint64_t take_ = 0;
    std::string head_;
    PipelinedConnection::Results results_;
    std::vector<curl_waitfd> waits_;
    std::vector<PipelinedConnection*> waitConnections_;
    std::vector<PipelinedConnection*> readable_;
    curl_slist* connectTo_ = nullptr;
    std::string caInfo_;
    std::size_t pipelineDepth_ = kDefaultPipelineDepth;
    std::uint64_t appliedConfigVersion_ = 0;
};

CurlHttpClient::CurlHttpClient() : impl_(std::make_unique<Impl>()) {}

CurlHttpClient::~CurlHttpClient() = default;

void CurlHttpClient::send(HttpRequest request, Completion completion) {
    impl_->send(std::move(request), std::move(completion));
}

void CurlHttpClient::connectTo(const std::string& hostAndPort, const std::string& addressAndPort) {
    impl_->connectTo(hostAndPort, addressAndPort);
}

void CurlHttpClient::setCaInfo(const std::string& path) { impl_->setCaInfo(path); }

void CurlHttpClient::setPipelineDepth(std::size_t requests) { impl_->setPipelineDepth(requests); }

void CurlHttpClient::setQueueLimits(std::size_t maxRequests, std::size_t maxBytes) {
    impl_->setQueueLimits(maxRequests, maxBytes);
}

std::uint64_t CurlHttpClient::droppedRequests() const { return impl_->droppedRequests(); }

}  // namespace NorvAnalytic
