#include "CollectorCli.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <pthread.h>
#include <signal.h>

#include <iomanip>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

#include "CollectorServer.h"

namespace NorvAnalytic::Collector {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kDefaultUrl = "http://127.0.0.1:8787";

constexpr const char* kUsage =
    "usage:\n"
    "  norv-collector serve [--host 127.0.0.1] [--port 8787] [--db PATH]\n"
    "                       [--analytics on|off] [--force VERSION] [--offer VERSION]\n"
    "                       [--download-url URL] [--null-payload]\n"
    "                       [--refuse-status STATUS --refuse-count N]\n"
    "  norv-collector steer [--url http://127.0.0.1:8787] [--analytics on|off]\n"
    "                       [--force VERSION|none] [--offer VERSION|none]\n"
    "                       [--download-url URL] [--null-payload]\n"
    "  norv-collector refuse [--url http://127.0.0.1:8787] [--status 500] [--count 1]\n"
    "                        [--body TEXT]\n"
    "  norv-collector list [--db PATH] [--raw]\n"
    "A steer without --null-payload answers app-open events with a payload again.\n";

// "--name value" options and "--name" flags of one command.
class Options {
public:
    Options(const std::vector<std::string>& arguments, const std::set<std::string>& valued,
            const std::set<std::string>& flags) {
        for (std::size_t index = 1; index < arguments.size(); ++index) {
            const std::string& name = arguments[index];
            if (flags.contains(name)) {
                values_[name] = "";
            } else if (valued.contains(name) && index + 1 < arguments.size()) {
                values_[name] = arguments[++index];
            } else {
                throw std::invalid_argument("unexpected argument: " + name);
            }
        }
    }

    bool has(const std::string& name) const { return values_.contains(name); }

    std::string get(const std::string& name, const std::string& fallback) const {
        const auto found = values_.find(name);
        return found == values_.end() ? fallback : found->second;
    }

    int number(const std::string& name, int fallback) const {
        return has(name) ? std::stoi(values_.at(name)) : fallback;
    }

    bool onOff(const std::string& name) const {
        const std::string value = values_.at(name);
        if (value != "on" && value != "off") {
            throw std::invalid_argument(name + " takes on or off");
        }
        return value == "on";
    }

private:
    std::map<std::string, std::string> values_;
};

std::optional<VersionOffer> versionOption(const Options& options, const std::string& name) {
    const std::string version = options.get(name, "none");
    if (version == "none") {
        return std::nullopt;
    }
    return VersionOffer{version, options.get("--download-url", "")};
}

Json versionJson(const std::optional<VersionOffer>& offer) {
    if (!offer) {
        return nullptr;
    }
    return Json{{"no", offer->no}, {"download_url", offer->downloadUrl}};
}

// Blocks SIGINT and SIGTERM in this thread and every thread it starts, then waits for one.
int serve(const Options& options, std::ostream& out) {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Steering steering;
    if (options.has("--analytics")) {
        steering.analyticsEnabled = options.onOff("--analytics");
    }
    steering.forceVersion = versionOption(options, "--force");
    steering.offerVersion = versionOption(options, "--offer");
    steering.nullPayload = options.has("--null-payload");

    CollectorStore store(options.get("--db", CollectorStore::defaultPath()));
    CollectorServer server(store, steering);
    if (options.has("--refuse-count")) {
        server.refuse(options.number("--refuse-status", 500), options.number("--refuse-count", 0));
    }
    const std::string host = options.get("--host", "127.0.0.1");
    const int port = server.start(host, options.number("--port", 8787));
    out << "norv-collector listening on http://" << host << ":" << port << std::endl;

    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    return 0;
}

// Posts a control request to a running collector and prints its answer.
int control(const std::string& url, const std::string& path, const Json& request,
            std::ostream& out, std::ostream& err) {
    httplib::Client client(url);
    const httplib::Result result = client.Post(path, request.dump(), "application/json");
    if (!result) {
        err << "norv-collector: cannot reach " << url << ": " << httplib::to_string(result.error())
            << "\n";
        return 1;
    }
    if (result->status != 200) {
        err << "norv-collector: " << url << path << " answered " << result->status << ": "
            << result->body << "\n";
        return 1;
    }
    out << Json::parse(result->body).dump(2) << "\n";
    return 0;
}

int steer(const Options& options, std::ostream& out, std::ostream& err) {
    Json request = Json::object();
    if (options.has("--analytics")) {
        request["analytics_enabled"] = options.onOff("--analytics");
    }
    if (options.has("--force")) {
        request["force_version"] = versionJson(versionOption(options, "--force"));
    }
    if (options.has("--offer")) {
        request["offer_version"] = versionJson(versionOption(options, "--offer"));
    }
    if (options.has("--download-url") && !options.has("--force") && !options.has("--offer")) {
        throw std::invalid_argument("--download-url belongs to --force or --offer");
    }
    request["null_payload"] = options.has("--null-payload");
    return control(options.get("--url", kDefaultUrl), "/control/steer", request, out, err);
}

int refuse(const Options& options, std::ostream& out, std::ostream& err) {
    Json request{{"status", options.number("--status", 500)},
                 {"count", options.number("--count", 1)}};
    if (options.has("--body")) {
        request["body"] = options.get("--body", "");
    }
    return control(options.get("--url", kDefaultUrl), "/control/refuse", request, out, err);
}

std::string cut(const std::string& text, std::size_t width) {
    return text.size() <= width ? text : text.substr(0, width - 1) + "~";
}

// The first of the fields that tell events of one device apart, as "key=value".
std::string detail(const StoredEvent& event) {
    static const char* const kKeys[] = {"pageName", "username",         "endpoint",
                                        "player_id", "deviceCustomName", "device_name",
                                        "error",     "warehouse",        "parameters"};
    for (const char* key : kKeys) {
        if (const std::optional<std::string> value = event.value(key); value) {
            return std::string(key) + "=" + *value;
        }
    }
    return "";
}

}  // namespace

int CollectorCli::run(const std::vector<std::string>& arguments, std::ostream& out,
                      std::ostream& err) {
    const std::string command = arguments.empty() ? "" : arguments[0];
    try {
        if (command == "serve") {
            return serve(Options(arguments,
                                 {"--host", "--port", "--db", "--analytics", "--force",
                                  "--offer", "--download-url", "--refuse-status",
                                  "--refuse-count"},
                                 {"--null-payload"}),
                         out);
        }
        if (command == "steer") {
            return steer(Options(arguments,
                                 {"--url", "--analytics", "--force", "--offer", "--download-url"},
                                 {"--null-payload"}),
                         out, err);
        }
        if (command == "refuse") {
            return refuse(Options(arguments, {"--url", "--status", "--count", "--body"}, {}), out,
                          err);
        }
        if (command == "list") {
            const Options options(arguments, {"--db"}, {"--raw"});
            const CollectorStore store(options.get("--db", CollectorStore::defaultPath()));
            if (options.has("--raw")) {
                printRaw(store.events(), out);
            } else {
                printTable(store.events(), out);
            }
            return 0;
        }
    } catch (const std::exception& error) {
        err << "norv-collector: " << error.what() << "\n";
        return 2;
    }
    err << kUsage;
    return 2;
}

void CollectorCli::printTable(const std::vector<StoredEvent>& events, std::ostream& out) {
    out << std::left << std::setw(6) << "ID" << std::setw(25) << "RECEIVED" << std::setw(7)
        << "STATUS" << std::setw(5) << "TYPE" << std::setw(12) << "VALUE" << std::setw(10)
        << "DEVICE" << std::setw(34) << "DETAIL"
        << "BYTES\n";
    for (const StoredEvent& event : events) {
        out << std::left << std::setw(6) << event.id << std::setw(25) << event.receivedAt
            << std::setw(7) << event.status << std::setw(5)
            << cut(event.value("type").value_or("-"), 4) << std::setw(12)
            << cut(event.value("value").value_or("-"), 11) << std::setw(10)
            << cut(event.value("device_uuid").value_or("-"), 8) << std::setw(34)
            << cut(detail(event), 33) << event.body.size() << "\n";
    }
    out << events.size() << (events.size() == 1 ? " event\n" : " events\n");
}

void CollectorCli::printRaw(const std::vector<StoredEvent>& events, std::ostream& out) {
    for (const StoredEvent& event : events) {
        out << "#" << event.id << " " << event.receivedAt << " status " << event.status << " "
            << event.body.size() << " bytes\n"
            << event.body << "\n";
    }
}

}  // namespace NorvAnalytic::Collector
