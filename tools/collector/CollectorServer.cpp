#include "CollectorServer.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <sys/socket.h>

#include <chrono>
#include <stdexcept>

namespace NorvAnalytic::Collector {

namespace {

using Json = nlohmann::ordered_json;

Json versionJson(const std::optional<VersionOffer>& offer) {
    if (!offer) {
        return nullptr;
    }
    return Json{{"no", offer->no}, {"download_url", offer->downloadUrl}};
}

// A version entry from a control request: an object with "no" and "download_url", or null.
std::optional<VersionOffer> versionFromJson(const Json& json) {
    if (json.is_null()) {
        return std::nullopt;
    }
    return VersionOffer{json.at("no").get<std::string>(),
                        json.value("download_url", std::string())};
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
            return pair.value == "2";
        }
    }
    return false;
}

void answerJson(httplib::Response& response, int status, const Json& json) {
    response.status = status;
    response.set_content(json.dump(), "application/json");
}

void answerBadRequest(httplib::Response& response, const std::string& reason) {
    answerJson(response, 400, Json{{"error", reason}});
}

}  // namespace

CollectorServer::CollectorServer(CollectorStore& store, Steering steering)
    : store_(store), server_(std::make_unique<httplib::Server>()),
      steering_(std::move(steering)) {
    // Without it every answer waits for the client's delayed acknowledgement.
    server_->set_tcp_nodelay(true);
    // httplib's default also sets SO_REUSEPORT, which would let a second collector share the
    // port silently; a restart only needs SO_REUSEADDR.
    server_->set_socket_options([](int socket) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    route();
}

CollectorServer::~CollectorServer() { stop(); }

int CollectorServer::start(const std::string& host, int port) {
    const int bound = port == 0 ? server_->bind_to_any_port(host)
                                : (server_->bind_to_port(host, port) ? port : -1);
    if (bound <= 0) {
        throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port));
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() only reaches a server that is already running.
    while (!server_->is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return bound;
}

void CollectorServer::stop() {
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
}

Steering CollectorServer::steering() const {
    std::lock_guard lock(mutex_);
    return steering_;
}

void CollectorServer::setSteering(Steering steering) {
    std::lock_guard lock(mutex_);
    steering_ = std::move(steering);
}

Refusal CollectorServer::refusal() const {
    std::lock_guard lock(mutex_);
    return refusal_;
}

void CollectorServer::refuse(int status, int count, std::optional<std::string> body) {
    std::lock_guard lock(mutex_);
    refusal_ = Refusal{status, count, std::move(body)};
}

void CollectorServer::route() {
    // The body is read through a content reader: when httplib parses a form body itself it
    // refuses anything over 8 KiB, and an event may be far larger.
    server_->Post("/api/v3/saveEvent", [this](const httplib::Request&,
                                               httplib::Response& response,
                                               const httplib::ContentReader& reader) {
        std::string body;
        reader([&body](const char* data, std::size_t length) {
            body.append(data, length);
            return true;
        });
        const auto receivedAt = std::chrono::system_clock::now();
        int status = 200;
        std::string answer;
        {
            std::lock_guard lock(mutex_);
            if (refusal_.remaining > 0) {
                --refusal_.remaining;
                status = refusal_.status;
                answer = refusalBody(refusal_);
            } else {
                const Json payload = isAppOpen(body) ? payloadJson(steering_) : nullptr;
                answer = Json{{"message", "Event saved"}, {"code", 200}, {"payload", payload}}
                             .dump();
            }
        }
        store_.save(body, receivedAt, status);
        response.status = status;
        response.set_content(answer, "application/json");
    });

    server_->Post("/control/steer", [this](const httplib::Request& request,
                                            httplib::Response& response) {
        try {
            const Json change = Json::parse(request.body);
            std::lock_guard lock(mutex_);
            Steering steering = steering_;
            if (change.contains("analytics_enabled")) {
                steering.analyticsEnabled = change.at("analytics_enabled").get<bool>();
            }
            if (change.contains("force_version")) {
                steering.forceVersion = versionFromJson(change.at("force_version"));
            }
            if (change.contains("offer_version")) {
                steering.offerVersion = versionFromJson(change.at("offer_version"));
            }
            if (change.contains("null_payload")) {
                steering.nullPayload = change.at("null_payload").get<bool>();
            }
            steering_ = steering;
            answerJson(response, 200, steeringJson(steering_));
        } catch (const Json::exception& error) {
            answerBadRequest(response, error.what());
        }
    });

    server_->Post("/control/refuse", [this](const httplib::Request& request,
                                             httplib::Response& response) {
        try {
            const Json change = Json::parse(request.body);
            std::optional<std::string> body;
            if (change.contains("body") && !change.at("body").is_null()) {
                body = change.at("body").get<std::string>();
            }
            refuse(change.value("status", 500), change.value("count", 1), std::move(body));
            answerJson(response, 200, refusalJson(refusal()));
        } catch (const Json::exception& error) {
            answerBadRequest(response, error.what());
        }
    });

    server_->Get("/control/state", [this](const httplib::Request&, httplib::Response& response) {
        std::lock_guard lock(mutex_);
        answerJson(response, 200,
                   Json{{"steering", steeringJson(steering_)}, {"refusal", refusalJson(refusal_)}});
    });
}

}  // namespace NorvAnalytic::Collector
