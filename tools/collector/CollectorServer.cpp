#include "CollectorServer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <tuple>

#include "CollectorPage.h"
#include "EventExport.h"
#include "EventSummary.h"
#include "IdempotencyKey.h"
#include "events/EventCatalogue.h"

namespace NorvAnalytic::Collector {

namespace {

using Json = nlohmann::ordered_json;

Json versionJson(const std::optional<VersionOffer>& offer) {
    if (!offer) {
        return nullptr;
    }
    return Json{{"no", offer->no}, {"download_url", offer->downloadUrl}};
}

// The steering block of an app-open answer, exactly as the SDK reads it.
Json payloadJson(const Steering& steering) {
    if (steering.nullPayload) {
        return nullptr;
    }
    return Json{{"analytics_enabled", steering.analyticsEnabled},
                {"force_version", versionJson(steering.forceVersion)},
                {"offer_version", versionJson(steering.offerVersion)}};
}

Json steeringJson(const Steering& steering) {
    return Json{{"analytics_enabled", steering.analyticsEnabled},
                {"force_version", versionJson(steering.forceVersion)},
                {"offer_version", versionJson(steering.offerVersion)},
                {"null_payload", steering.nullPayload}};
}

Json refusalJson(const Refusal& refusal) {
    Json json{{"status", refusal.status}, {"remaining", refusal.remaining}};
    json["body"] = refusal.body ? Json(*refusal.body) : Json(nullptr);
    return json;
}

std::string refusalBody(const Refusal& refusal) {
    if (refusal.body) {
        return *refusal.body;
    }
    return Json{{"message", "Event refused"}, {"code", refusal.status}, {"payload", nullptr}}
        .dump();
}

bool isAppOpen(const std::string& body) {
    for (const FormPair& pair : CollectorStore::parsePairs(body)) {
        if (pair.key == "type") {
            return EventCatalogue::isAppOpen(pair.value);
        }
    }
    return false;
}

// The status and body that the next event is answered with.
std::pair<int, std::string> answerFor(const Steering& steering, const Refusal& refusal,
                                      bool appOpen) {
    if (refusal.remaining > 0) {
        return {refusal.status, refusalBody(refusal)};
    }
    const Json payload = appOpen ? payloadJson(steering) : nullptr;
    return {200, Json{{"message", "Event saved"}, {"code", 200}, {"payload", payload}}.dump()};
}

// Bodies and headers are bytes from anywhere: what is not UTF-8 is shown replaced.
std::string dumpJson(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json eventJson(const StoredEvent& event) {
    Json pairs = Json::array();
    for (const FormPair& pair : event.pairs) {
        pairs.push_back(Json::array({pair.key, pair.value ? Json(*pair.value) : Json(nullptr)}));
    }
    const std::optional<std::string> type = event.value("type");
    return Json{
        {"id", event.id},
        {"received_at", event.receivedAt},
        {"status", event.status},
        {"type", type ? Json(*type) : Json(nullptr)},
        {"type_name", EventCatalogue::typeName(type)},
        {"value", event.value("value").value_or("")},
        {"device", event.value("device_uuid").value_or("")},
        {"summary", EventSummary::of(event)},
        {"answer", event.answer},
        {"idempotency_key", event.idempotencyKey ? Json(*event.idempotencyKey) : Json(nullptr)},
        {"repeats", event.repeats},
        {"bytes", event.body.size()},
        {"pairs", std::move(pairs)}};
}

std::int64_t numberParameter(const httplib::Request& request, const char* name,
                             std::int64_t fallback) {
    const std::string text = request.get_param_value(name);
    std::int64_t number = fallback;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::optional<std::string> textParameter(const httplib::Request& request, const char* name) {
    std::string text = request.get_param_value(name);
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

// The page's filters, as its address carries them.
EventFilter filterFrom(const httplib::Request& request) {
    constexpr std::int64_t kMaxPage = 1000;
    EventFilter filter;
    filter.typeId = textParameter(request, "type");
    filter.device = textParameter(request, "device");
    filter.text = textParameter(request, "q");
    filter.afterId = numberParameter(request, "after", 0);
    filter.beforeId = numberParameter(request, "before", 0);
    filter.limit = static_cast<std::size_t>(
        std::clamp<std::int64_t>(numberParameter(request, "limit", 200), 1, kMaxPage));
    return filter;
}

// A page on any web site can make the browser send requests to a loopback address. Those
// carry a foreign Origin or Sec-Fetch-Site; the SDK and the command line send neither.
bool isCrossOrigin(const httplib::Request& request) {
    const std::string site = request.get_header_value("Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none") {
        return true;
    }
    const std::string origin = request.get_header_value("Origin");
    return !origin.empty() && origin != "http://" + request.get_header_value("Host");
}

// A name that another site's DNS turns into our address would make its pages same-origin with
// ours; an address literal, localhost or the name we were told to listen on cannot.
bool isOwnHost(const std::string& hostHeader, const std::string& listenHost) {
    std::string name = hostHeader;
    if (name.starts_with("[")) {
        name = name.substr(1, name.find(']') - 1);
    } else {
        name = name.substr(0, name.rfind(':'));
    }
    unsigned char address[sizeof(in6_addr)];
    return name == "localhost" || name == listenHost ||
           inet_pton(AF_INET, name.c_str(), address) == 1 ||
           inet_pton(AF_INET6, name.c_str(), address) == 1;
}

void answerJson(httplib::Response& response, int status, const Json& json) {
    response.status = status;
    response.set_content(dumpJson(json), "application/json");
}

void answerBadRequest(httplib::Response& response, const std::string& reason) {
    answerJson(response, 400, Json{{"error", reason}});
}

// Whether an Authorization field carries the token; compares without returning early, so
// that the time taken tells nothing of the token.
bool carriesToken(const std::string& authorization, const std::string& token) {
    constexpr std::string_view kScheme = "bearer ";
    const bool bearer =
        authorization.size() > kScheme.size() &&
        std::equal(kScheme.begin(), kScheme.end(), authorization.begin(),
                   [](char scheme, char given) { return scheme == (given | 0x20); });
    const std::string_view given =
        bearer ? std::string_view(authorization).substr(kScheme.size()) : std::string_view();
    unsigned char difference = bearer && given.size() == token.size() ? 0 : 1;
    for (std::size_t index = 0; index < given.size(); ++index) {
        difference |= static_cast<unsigned char>(given[index] ^ token[index % token.size()]);
    }
    return difference == 0;
}

constexpr const char* kSaveEvent = "/api/v3/saveEvent";

BoundedServer::Limits limits() {
    BoundedServer::Limits limits;
    limits.reservedThreads = CollectorServer::kSdkThreads;
    // Every live page holds a thread while it watches, beside the page's other requests.
    limits.otherThreads = CollectorServer::kPageThreads + LiveStreams::kMaxPages;
    return limits;
}

}  // namespace

CollectorServer::CollectorServer(CollectorStore& store, Steering steering,
                                 std::optional<std::string> token)
    : store_(store),
      token_(std::move(token)),
      server_(limits(),
              [](const httplib::Request& request) {
                  return request.method == "POST" && request.path == kSaveEvent;
              }),
      steering_(std::move(steering)),
      streams_(
          store, [](const StoredEvent& event) { return dumpJson(eventJson(event)); },
          [this] { return stateJson(); }) {
    if (token_) {
        checkToken(*token_);
    }
    route();
}

CollectorServer::~CollectorServer() { stop(); }

bool CollectorServer::isLoopback(const std::string& host) {
    in_addr v4{};
    in6_addr v6{};
    return host == "localhost" ||
           (inet_pton(AF_INET, host.c_str(), &v4) == 1 && (ntohl(v4.s_addr) >> 24) == 127) ||
           (inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6));
}

void CollectorServer::checkToken(const std::string& token) {
    if (token.size() < kMinTokenLength) {
        throw std::invalid_argument("a token has at least 16 characters");
    }
    if (std::any_of(token.begin(), token.end(), [](char c) { return c <= ' ' || c > '~'; })) {
        throw std::invalid_argument("a token is visible ASCII characters without spaces");
    }
}

int CollectorServer::start(const std::string& host, int port) {
    if (!isLoopback(host) && !token_) {
        throw std::invalid_argument("listening on " + host +
                                    " needs a token (--token or --token-file): anyone who "
                                    "reaches it could steer every client's update alert");
    }
    loopbackOnly_ = isLoopback(host);
    listenHost_ = host;
    const int bound = server_.start(host, port);
    streams_.start();
    return bound;
}

void CollectorServer::stop() {
    streams_.close();
    server_.stop();
}

Steering CollectorServer::steering() const {
    std::lock_guard lock(mutex_);
    return steering_;
}

void CollectorServer::setSteering(Steering steering) {
    {
        std::lock_guard lock(mutex_);
        steering_ = std::move(steering);
    }
    streams_.publish();
}

Refusal CollectorServer::refusal() const {
    std::lock_guard lock(mutex_);
    return refusal_;
}

void CollectorServer::refuse(int status, int count, std::optional<std::string> body) {
    ControlRequests::check(Refusal{status, count, std::nullopt});
    {
        std::lock_guard lock(mutex_);
        refusal_ = Refusal{status, count, std::move(body)};
    }
    streams_.publish();
}

void CollectorServer::route() {
    httplib::Server& http = server_.http();
    // Bodies are read through a content reader, which holds them to the body limit.
    http.Post(kSaveEvent, [this](const httplib::Request& request, httplib::Response& response,
                                 const httplib::ContentReader& reader) {
        saveEvent(request, response, reader);
    });

    routeControl("/control/steer", [this](const std::string& body) {
        Json steering;
        {
            std::lock_guard lock(mutex_);
            steering_ = ControlRequests::steered(steering_, body);
            steering = steeringJson(steering_);
        }
        streams_.publish();
        return steering.dump();
    });
    routeControl("/control/refuse", [this](const std::string& body) {
        Refusal refusal = ControlRequests::refusal(body);
        refuse(refusal.status, refusal.remaining, std::move(refusal.body));
        return refusalJson(this->refusal()).dump();
    });

    http.Get("/control/state", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(stateJson(), "application/json");
    });

    http.Get("/api/events", [this](const httplib::Request& request, httplib::Response& response) {
        EventFilter filter = filterFrom(request);
        filter.newestFirst = true;
        Json events = Json::array();
        for (const StoredEvent& event : store_.events(filter)) {
            events.push_back(eventJson(event));
        }
        response.set_content(dumpJson(events), "application/json");
    });

    http.Get("/api/counts", [this](const httplib::Request& request, httplib::Response& response) {
        const EventCounts counts = store_.counts(filterFrom(request));
        // Every type the SDK sends, then any other type that arrived.
        Json types = Json::array();
        const auto add = [&types](const std::string& type, std::int64_t count) {
            for (Json& known : types) {
                if (known["type"] == type) {
                    known["count"] = count;
                    return;
                }
            }
            types.push_back(
                Json{{"type", type}, {"name", EventCatalogue::typeName(type)}, {"count", count}});
        };
        for (std::int32_t index = 0; const Text type = EventCatalogue::typeId(index); ++index) {
            add(*type, 0);
        }
        for (const auto& [type, count] : counts.byType) {
            add(type, count);
        }
        Json statuses = Json::array();
        for (const auto& [status, count] : counts.byStatus) {
            statuses.push_back(Json{{"status", status}, {"count", count}});
        }
        response.set_content(dumpJson(Json{{"total", counts.total},
                                           {"last_id", counts.lastId},
                                           {"types", types},
                                           {"statuses", statuses}}),
                             "application/json");
    });

    // Events per second over spans up to 15 minutes, per minute over longer ones.
    http.Get("/api/rate", [this](const httplib::Request& request, httplib::Response& response) {
        constexpr std::int64_t kLongestSpan = 24 * 3600;
        const std::int64_t span =
            std::clamp<std::int64_t>(numberParameter(request, "span", 300), 10, kLongestSpan);
        const bool perMinute = span > 15 * 60;
        const auto now = std::chrono::system_clock::now();
        EventFilter filter = filterFrom(request);
        filter.since = CollectorStore::isoTime(now - std::chrono::seconds(span));
        Json rows = Json::array();
        std::int64_t lastId = 0;
        for (const RateBucket& bucket : store_.rates(filter, perMinute, &lastId)) {
            rows.push_back(Json::array({bucket.time, bucket.typeId, bucket.refused, bucket.count}));
        }
        response.set_content(dumpJson(Json{{"now", CollectorStore::isoTime(now)},
                                           {"span", span},
                                           {"bucket", perMinute ? 60 : 1},
                                           {"last_id", lastId},
                                           {"rows", rows}}),
                             "application/json");
    });

    // The filtered events as a file, read from the store a batch at a time.
    http.Get("/api/export", [this](const httplib::Request& request, httplib::Response& response) {
        const std::string format = request.get_param_value("format");
        if (!EventExport::knows(format)) {
            answerBadRequest(response, "format is jsonl or csv");
            return;
        }
        auto filter = std::make_shared<EventFilter>(filterFrom(request));
        filter->limit = 500;
        filter->newestFirst = false;
        response.set_header("Content-Disposition",
                            "attachment; filename=\"norv-events." + format + "\"");
        response.set_chunked_content_provider(
            EventExport::contentType(format),
            [this, filter, format, started = false](std::size_t, httplib::DataSink& sink) mutable {
                std::string text = started ? "" : EventExport::header(format);
                started = true;
                std::vector<StoredEvent> events;
                try {
                    events = store_.events(*filter);
                } catch (const std::exception&) {
                    // The file ends cut short, which the browser reports as a failed download.
                    return false;
                }
                for (const StoredEvent& event : events) {
                    text += EventExport::line(format, event);
                }
                if (!events.empty()) {
                    filter->afterId = events.back().id;
                }
                if (!text.empty() && !sink.write(text.data(), text.size())) {
                    return false;
                }
                if (events.size() < filter->limit) {
                    sink.done();
                }
                return true;
            });
    });

    http.Get("/api/stream", [this](const httplib::Request& request, httplib::Response& response) {
        stream(request, response);
    });

    for (const CollectorPage::Asset& asset : CollectorPage::assets()) {
        http.Get(std::string(asset.path), [&asset](const httplib::Request&,
                                                   httplib::Response& response) {
            // Nothing but our own files may run or load; no other site may frame the page.
            response.set_header("Content-Security-Policy",
                                "default-src 'self'; frame-ancestors 'none'");
            response.set_header("Cache-Control", "no-store");
            response.set_content(std::string(asset.content), std::string(asset.contentType));
        });
    }

    server_.setPreRoutingHandler(
        [this](const httplib::Request& request, httplib::Response& response) {
            return guard(request, response);
        });
}

httplib::Server::HandlerResponse CollectorServer::guard(const httplib::Request& request,
                                                        httplib::Response& response) const {
    // On loopback every endpoint checks the name it was reached by, the SDK's too: a page
    // that rebinds its own name to 127.0.0.1 could otherwise plant events.
    if (loopbackOnly_ && !isOwnHost(request.get_header_value("Host"), listenHost_)) {
        answerJson(response, 403,
                   Json{{"error", "Host \"" + request.get_header_value("Host") +
                                      "\" is not a name of this collector"}});
        return httplib::Server::HandlerResponse::Handled;
    }
    if (isCrossOrigin(request)) {
        answerJson(response, 403, Json{{"error", "cross-origin request refused"}});
        return httplib::Server::HandlerResponse::Handled;
    }
    if (request.path.starts_with("/control/") && request.method == "POST") {
        if (token_ && !carriesToken(request.get_header_value("Authorization"), *token_)) {
            response.set_header("WWW-Authenticate", "Bearer realm=\"norv-collector\"");
            answerJson(response, 401,
                       Json{{"error", "control requests need the collector's token"}});
            return httplib::Server::HandlerResponse::Handled;
        }
        // A form on another site can post only form or plain-text bodies without asking first.
        if (!request.get_header_value("Content-Type").starts_with("application/json")) {
            answerJson(response, 415, Json{{"error", "control requests are JSON"}});
            return httplib::Server::HandlerResponse::Handled;
        }
    }
    return httplib::Server::HandlerResponse::Unhandled;
}

void CollectorServer::routeControl(const char* path,
                                   std::function<std::string(const std::string& body)> apply) {
    server_.http().Post(
        path, [this, apply = std::move(apply)](const httplib::Request&, httplib::Response& response,
                                               const httplib::ContentReader& reader) {
            const std::optional<std::string> body = bodyOf(reader, response);
            if (!body) {
                return;
            }
            try {
                response.set_content(apply(*body), "application/json");
            } catch (const std::invalid_argument& error) {
                answerBadRequest(response, error.what());
            }
        });
}

std::optional<std::string> CollectorServer::bodyOf(const httplib::ContentReader& reader,
                                                   httplib::Response& response) {
    std::string body;
    switch (server_.readBody(reader, body)) {
        case BoundedServer::BodyRead::Complete:
            return body;
        case BoundedServer::BodyRead::TooLarge:
            answerJson(response, 413, Json{{"error", server_.tooLargeReason()}});
            return std::nullopt;
        case BoundedServer::BodyRead::Broken:
            break;
    }
    answerBadRequest(response, "the body could not be read");
    return std::nullopt;
}

void CollectorServer::saveEvent(const httplib::Request& request, httplib::Response& response,
                                const httplib::ContentReader& reader) {
    const std::optional<std::string> body = bodyOf(reader, response);
    if (!body) {
        return;
    }
    if (static_cast<std::size_t>(std::count(body->begin(), body->end(), '&')) >= kMaxPairs) {
        answerJson(
            response, 413,
            Json{{"error", "an event holds at most " + std::to_string(kMaxPairs) + " pairs"}});
        return;
    }
    std::optional<std::string> key;
    try {
        if (request.get_header_value_count("Idempotency-Key") > 1) {
            throw std::invalid_argument("an event has one Idempotency-Key");
        }
        if (request.has_header("Idempotency-Key")) {
            key = IdempotencyKey::parse(request.get_header_value("Idempotency-Key"));
        }
    } catch (const std::invalid_argument& error) {
        answerBadRequest(response, error.what());
        return;
    }
    const auto [status, answerBody] = answer(*body, key);
    streams_.publish();
    response.status = status;
    response.set_content(answerBody, "application/json");
}

std::pair<int, std::string> CollectorServer::answer(const std::string& body,
                                                    const std::optional<std::string>& key) {
    const auto receivedAt = std::chrono::system_clock::now();
    std::lock_guard saving(saving_);
    if (key) {
        if (const std::optional<StoredEvent> first = store_.eventWithKey(*key)) {
            if (first->body != body) {
                return {422, dumpJson(Json{{"error", "Idempotency-Key \"" + *key +
                                                         "\" came first with another body"}})};
            }
            // Answered as the first was, whatever the steering now says; no refusal is used.
            store_.countRepeat(first->id);
            return {first->status, first->answer};
        }
    }
    int status = 0;
    std::string answer;
    {
        std::lock_guard lock(mutex_);
        std::tie(status, answer) = answerFor(steering_, refusal_, isAppOpen(body));
        refusal_.remaining = std::max(0, refusal_.remaining - 1);
    }
    store_.save(body, receivedAt, status, answer, key);
    return {status, answer};
}

std::string CollectorServer::stateJson() const {
    const std::int64_t repeats = store_.repeatsAbsorbed();
    const BoundedServer::Counters turnedAway = server_.counters();
    std::lock_guard lock(mutex_);
    const auto [status, body] = answerFor(steering_, refusal_, true);
    return dumpJson(Json{{"steering", steeringJson(steering_)},
                         {"refusal", refusalJson(refusal_)},
                         {"next_app_open", Json{{"status", status}, {"body", body}}},
                         {"token_required", token_.has_value()},
                         {"repeats_absorbed", repeats},
                         {"live_pages", streams_.pagesOpen()},
                         {"live_pages_cut", streams_.pagesCut()},
                         {"turned_away", Json{{"timed_out", turnedAway.timedOut},
                                              {"evicted", turnedAway.evicted},
                                              {"busy", turnedAway.busy},
                                              {"too_large", turnedAway.tooLarge}}}});
}

// Server-Sent Events: the state at once and on every change, and each new event that matches
// the filters; a comment line now and then finds a page that has gone.
void CollectorServer::stream(const httplib::Request& request, httplib::Response& response) {
    EventFilter filter = filterFrom(request);
    const std::string lastEventId = request.get_header_value("Last-Event-ID");
    std::from_chars(lastEventId.data(), lastEventId.data() + lastEventId.size(), filter.afterId);
    std::shared_ptr<LiveStreams::Page> page = streams_.open(filter);
    if (!page) {
        answerJson(response, 503, Json{{"error", "too many live pages"}});
        return;
    }
    response.set_header("Cache-Control", "no-store");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, page](std::size_t, httplib::DataSink& sink) {
            const std::optional<std::string> text = streams_.next(*page, std::chrono::seconds(2));
            if (!text) {
                return false;
            }
            return text->empty() ? sink.write(":\n\n", 3) : sink.write(text->data(), text->size());
        },
        [this, page](bool) { streams_.leave(page); });
}

}  // namespace NorvAnalytic::Collector
