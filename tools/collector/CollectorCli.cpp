#include "CollectorCli.h"

#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>

#include "CollectorServer.h"
#include "EventExport.h"
#include "EventSummary.h"
#include "events/EventCatalogue.h"
#include "events/TextFormat.h"

namespace NorvAnalytic::Collector {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kDefaultUrl = "http://127.0.0.1:8787";

// The steering options "serve" starts with and "steer" changes.
struct SteerOptions {
    std::optional<std::string> analytics;
    std::optional<std::string> force;
    std::optional<std::string> offer;
    std::optional<std::string> downloadUrl;
    bool nullPayload = false;

    void addTo(CLI::App& command) {
        command.add_option("--analytics", analytics, "Collection on or off")
            ->check(CLI::IsMember({"on", "off"}));
        command.add_option("--force", force, "Version the app must update to (none: no version)");
        command.add_option("--offer", offer, "Version the app may update to (none: no version)");
        command.add_option("--download-url", downloadUrl, "Download URL of --force or --offer");
        command.add_flag("--null-payload", nullPayload,
                         "Answer app-open events with a null payload (without it: a payload)");
    }

    std::optional<VersionOffer> version(const std::optional<std::string>& number) const {
        if (!number || *number == "none") {
            return std::nullopt;
        }
        return VersionOffer{*number, downloadUrl.value_or("")};
    }
};

// The token of --token or of the file --token-file names (its first line).
struct TokenOptions {
    std::optional<std::string> token;
    std::optional<std::string> file;

    void addTo(CLI::App& command, const char* purpose) {
        command.add_option("--token", token, purpose);
        command.add_option("--token-file", file, "A file whose first line is the token")
            ->check(CLI::ExistingFile);
    }

    std::optional<std::string> read() const {
        if (token && file) {
            throw std::invalid_argument("--token or --token-file, not both");
        }
        std::optional<std::string> read = token;
        if (file) {
            std::ifstream in(*file);
            std::string line;
            std::getline(in, line);
            read = line.substr(0, line.find_last_not_of(" \t\r") + 1);
        }
        if (read) {
            CollectorServer::checkToken(*read);
        }
        return read;
    }
};

// Text for a terminal: a control character, a backslash or a byte that is not UTF-8 is
// written as an escape (\e, \x07, \u009b, \\), so that an event cannot drive the terminal.
std::string visible(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string shown;
    for (std::size_t offset = 0; offset < text.size();) {
        const auto byte = static_cast<unsigned char>(text[offset]);
        const std::size_t length = TextFormat::utf8SequenceLength(text.substr(offset));
        const auto second = length == 2 ? static_cast<unsigned char>(text[offset + 1]) : 0;
        if (length == 2 && byte == 0xC2 && second < 0xA0) {
            // U+0080 to U+009F: controls that some terminals obey.
            shown += {'\\', 'u', '0', '0', kDigits[second >> 4], kDigits[second & 15]};
        } else if (length > 1) {
            shown.append(text.substr(offset, length));
        } else if (byte == '\\') {
            shown += "\\\\";
        } else if (byte == 0x1B) {
            shown += "\\e";
        } else if (byte == '\n' || byte == '\r' || byte == '\t') {
            shown += {'\\', byte == '\n' ? 'n' : byte == '\r' ? 'r' : 't'};
        } else if (length == 0 || byte < 0x20 || byte == 0x7F) {
            shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        } else {
            shown += static_cast<char>(byte);
        }
        offset += std::max<std::size_t>(length, 1);
    }
    return shown;
}

Json versionJson(const std::optional<VersionOffer>& offer) {
    if (!offer) {
        return nullptr;
    }
    return Json{{"no", offer->no}, {"download_url", offer->downloadUrl}};
}

// Serves until SIGINT or SIGTERM, which this thread takes with sigwait.
int serve(const std::string& host, int port, const std::string& database,
          const SteerOptions& options, int refuseStatus, int refuseCount,
          const std::optional<std::string>& token, std::ostream& out) {
    Steering steering;
    steering.analyticsEnabled = options.analytics.value_or("on") == "on";
    steering.forceVersion = options.version(options.force);
    steering.offerVersion = options.version(options.offer);
    steering.nullPayload = options.nullPayload;

    CollectorStore store(database);
    CollectorServer server(store, steering, token);
    if (refuseCount > 0) {
        server.refuse(refuseStatus, refuseCount);
    }
    const int bound = server.start(host, port);
    out << "norv-collector listening on http://" << host << ":" << bound
        << (token ? " (control requests need the token;" : " (")
        << " open it in a browser to watch events and steer)" << std::endl;

    sigset_t stopSignals;
    sigset_t previous;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return 0;
}

// Sends a control request to a running collector (a GET without a body) and prints its answer.
int control(const std::string& url, const std::optional<std::string>& token,
            const std::string& path, const std::optional<Json>& request, std::ostream& out,
            std::ostream& err) {
    httplib::Client client(url);
    httplib::Headers headers;
    if (token) {
        headers.emplace("Authorization", "Bearer " + *token);
    }
    const httplib::Result result =
        request ? client.Post(path, headers, request->dump(), "application/json")
                : client.Get(path, headers);
    if (!result) {
        err << "norv-collector: cannot reach " << url << ": " << httplib::to_string(result.error())
            << "\n";
        return 1;
    }
    if (result->status != 200) {
        err << "norv-collector: " << url << path << " answered " << result->status << ": "
            << visible(result->body) << "\n";
        return 1;
    }
    out << Json::parse(result->body).dump(2) << "\n";
    return 0;
}

// Without options, shows the steering, the pending refusals and the next app-open answer.
int steer(const std::string& url, const std::optional<std::string>& token,
          const SteerOptions& options, std::ostream& out, std::ostream& err) {
    if (!options.analytics && !options.force && !options.offer && !options.downloadUrl &&
        !options.nullPayload) {
        return control(url, token, "/control/state", std::nullopt, out, err);
    }
    if (options.downloadUrl && !options.force && !options.offer) {
        throw std::invalid_argument("--download-url belongs to --force or --offer");
    }
    Json request = Json::object();
    if (options.analytics) {
        request["analytics_enabled"] = *options.analytics == "on";
    }
    if (options.force) {
        request["force_version"] = versionJson(options.version(options.force));
    }
    if (options.offer) {
        request["offer_version"] = versionJson(options.version(options.offer));
    }
    request["null_payload"] = options.nullPayload;
    return control(url, token, "/control/steer", request, out, err);
}

// A type id ("2") or a type name in any letter case ("app open").
std::string typeIdOf(const std::string& nameOrId) {
    const auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
        return text;
    };
    for (std::int32_t index = 0; const Text id = EventCatalogue::typeId(index); ++index) {
        if (*id == nameOrId || lower(EventCatalogue::typeName(id)) == lower(nameOrId)) {
            return *id;
        }
    }
    if (nameOrId.empty() || !std::all_of(nameOrId.begin(), nameOrId.end(),
                                         [](char c) { return c >= '0' && c <= '9'; })) {
        throw std::invalid_argument("--type: no event type is called \"" + nameOrId + "\"");
    }
    return nameOrId;
}

// A receive time as stored, or its beginning ("2026-11-22T06"), or an age: "90s", "15m", "2h",
// "1d" before now.
std::string sinceTime(const std::string& text, std::chrono::system_clock::time_point now) {
    long long amount = 0;
    const char* end = text.data() + text.size();
    const auto [unit, error] = std::from_chars(text.data(), end, amount);
    if (error == std::errc() && unit + 1 == end) {
        const std::string units = "smhd";
        constexpr long long kSeconds[] = {1, 60, 3600, 86400};
        if (const auto found = units.find(*unit); found != std::string::npos) {
            return CollectorStore::isoTime(now - std::chrono::seconds(amount * kSeconds[found]));
        }
    }
    if (text.size() >= 4 &&
        std::all_of(text.begin(), text.begin() + 4, [](char c) { return c >= '0' && c <= '9'; })) {
        return text;
    }
    throw std::invalid_argument(
        "--since takes a time such as 2026-11-22T06:30 or an age such "
        "as 15m");
}

int list(const CollectorStore& store, EventFilter filter, bool raw, bool follow,
         std::ostream& out) {
    std::vector<StoredEvent> events = store.events(filter);
    if (raw) {
        CollectorCli::printRaw(events, out);
    } else {
        CollectorCli::printHeader(out);
        CollectorCli::printRows(events, out);
        if (!follow) {
            std::int64_t repeats = 0;
            for (const StoredEvent& event : events) {
                repeats += event.repeats;
            }
            out << events.size() << (events.size() == 1 ? " event" : " events");
            if (repeats > 0) {
                out << ", " << repeats << (repeats == 1 ? " repeat" : " repeats")
                    << " absorbed (the same Idempotency-Key again)";
            }
            out << "\n";
        }
    }
    // Another process writes the file, so nothing here is told of new events: look four times
    // a second until the command is interrupted.
    while (follow) {
        out.flush();
        if (!events.empty()) {
            filter.afterId = events.back().id;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        events = store.events(filter);
        if (raw) {
            CollectorCli::printRaw(events, out);
        } else {
            CollectorCli::printRows(events, out);
        }
    }
    return 0;
}

// Reads the store a batch at a time, so that a large file never sits in memory whole.
int exportEvents(const CollectorStore& store, EventFilter filter, const std::string& format,
                 std::ostream& out) {
    filter.limit = 500;
    out << EventExport::header(format);
    while (true) {
        const std::vector<StoredEvent> events = store.events(filter);
        for (const StoredEvent& event : events) {
            out << EventExport::line(format, event);
        }
        if (events.size() < filter.limit) {
            return out ? 0 : 1;
        }
        filter.afterId = events.back().id;
    }
}

std::string cut(const std::string& text, std::size_t width) {
    return text.size() <= width ? text : text.substr(0, width - 1) + "~";
}

}  // namespace

int CollectorCli::run(const std::vector<std::string>& arguments, std::ostream& out,
                      std::ostream& err) {
    const std::string database = CollectorStore::defaultPath();
    CLI::App app(
        "norv-collector: a development collection server for NorvAnalytic. It stores "
        "every event in an SQLite file (default " +
            database +
            "; $XDG_DATA_HOME/NorvAnalytic/collector.sqlite when that is set) and serves a live "
            "page of them at its address.",
        "norv-collector");
    app.require_subcommand(1);

    CLI::App& serveCommand = *app.add_subcommand("serve", "Receive events and answer them");
    std::string host = "127.0.0.1";
    int port = 8787;
    std::string db = database;
    SteerOptions serveSteering;
    int refuseStatus = 500;
    int refuseCount = 0;
    serveCommand.add_option("--host", host, "Address to listen on")->capture_default_str();
    serveCommand.add_option("--port", port, "Port to listen on, 0 for any free one")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    serveCommand.add_option("--db", db, "SQLite file of the events")->capture_default_str();
    serveSteering.addTo(serveCommand);
    serveCommand.add_option("--refuse-status", refuseStatus, "Status of the refusals")
        ->capture_default_str();
    serveCommand.add_option("--refuse-count", refuseCount, "Refuse this many events first");
    TokenOptions token;
    token.addTo(serveCommand,
                "Control requests must carry it (Authorization: Bearer); needed beyond loopback");

    std::string url = kDefaultUrl;
    CLI::App& steerCommand = *app.add_subcommand(
        "steer", "Change what app-open events are answered; without options, show it");
    steerCommand.add_option("--url", url, "The running collector")->capture_default_str();
    token.addTo(steerCommand, "The collector's token, if it has one");
    SteerOptions steering;
    steering.addTo(steerCommand);

    CLI::App& refuseCommand =
        *app.add_subcommand("refuse", "Answer the next events with an error status");
    int status = 500;
    int count = 1;
    std::optional<std::string> body;
    refuseCommand.add_option("--url", url, "The running collector")->capture_default_str();
    token.addTo(refuseCommand, "The collector's token, if it has one");
    refuseCommand.add_option("--status", status, "Status to answer with")->capture_default_str();
    refuseCommand.add_option("--count", count, "How many events")->capture_default_str();
    refuseCommand.add_option("--body", body, "Answer body (default: a JSON refusal)");

    CLI::App& listCommand = *app.add_subcommand("list", "Print the stored events");
    CLI::App& exportCommand = *app.add_subcommand(
        "export",
        "Write the stored events as JSON Lines or CSV to standard output. JSON Lines keeps every "
        "value exactly; in CSV a value that begins with =, +, -, @, a tab or a carriage return "
        "gets a leading ' so that a spreadsheet shows it as text instead of running it as a "
        "formula");
    bool raw = false;
    bool follow = false;
    std::string format;
    std::optional<std::string> type;
    std::optional<std::string> device;
    std::optional<std::string> since;
    std::optional<std::string> text;
    listCommand.add_flag("--raw", raw,
                         "Print each body as it arrived, control characters and backslashes "
                         "written as escapes (\\e, \\x07, \\\\)");
    listCommand.add_flag("--follow,-f", follow, "Keep printing events as they arrive");
    exportCommand.add_option("--format", format, "jsonl or csv")
        ->required()
        ->check(CLI::IsMember({"jsonl", "csv"}));
    for (CLI::App* command : {&listCommand, &exportCommand}) {
        command->add_option("--db", db, "SQLite file of the events")->capture_default_str();
        command->add_option("--type", type, "Only this type: a name (\"App Open\") or an id");
        command->add_option("--device", device, "Only this device UUID, or its beginning");
        command->add_option("--since", since,
                            "Only from this time (2026-11-22T06:30) or age (15m)");
        command->add_option("--text", text, "Only events whose body holds this, in any case");
    }

    try {
        if (arguments.empty()) {
            err << app.help();
            return 2;
        }
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        app.parse(reversed);
        if (serveCommand) {
            return serve(host, port, db, serveSteering, refuseStatus, refuseCount, token.read(),
                         out);
        }
        if (steerCommand) {
            return steer(url, token.read(), steering, out, err);
        }
        if (refuseCommand) {
            Json request{{"status", status}, {"count", count}};
            if (body) {
                request["body"] = *body;
            }
            return control(url, token.read(), "/control/refuse", request, out, err);
        }
        EventFilter filter;
        filter.typeId = type ? std::optional(typeIdOf(*type)) : std::nullopt;
        filter.device = device;
        filter.since = since ? std::optional(sinceTime(*since, std::chrono::system_clock::now()))
                             : std::nullopt;
        filter.text = text;
        if (exportCommand) {
            return exportEvents(CollectorStore(db), filter, format, out);
        }
        return list(CollectorStore(db), filter, raw, follow, out);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        err << "norv-collector: " << error.what() << "\n";
        return 2;
    }
}

void CollectorCli::printHeader(std::ostream& out) {
    out << std::left << std::setw(6) << "ID" << std::setw(25) << "RECEIVED" << std::setw(7)
        << "STATUS" << std::setw(22) << "TYPE" << std::setw(12) << "VALUE" << std::setw(10)
        << "DEVICE" << std::setw(34) << "SUMMARY"
        << "BYTES\n";
}

void CollectorCli::printRows(const std::vector<StoredEvent>& events, std::ostream& out) {
    for (const StoredEvent& event : events) {
        const std::optional<std::string> type = event.value("type");
        const std::string name = EventCatalogue::typeName(type);
        out << std::left << std::setw(6) << event.id << std::setw(25) << event.receivedAt
            << std::setw(7) << event.status << std::setw(22)
            << cut(visible(type.value_or("-") + (name.empty() ? "" : " " + name)), 21)
            << std::setw(12) << cut(visible(event.value("value").value_or("-")), 11)
            << std::setw(10) << cut(visible(event.value("device_uuid").value_or("-")), 8)
            << std::setw(34) << cut(visible(EventSummary::of(event)), 33) << event.body.size()
            << "\n";
    }
}

void CollectorCli::printRaw(const std::vector<StoredEvent>& events, std::ostream& out) {
    for (const StoredEvent& event : events) {
        out << "#" << event.id << " " << event.receivedAt << " status " << event.status << " "
            << event.body.size() << " bytes";
        if (event.idempotencyKey) {
            out << " key \"" << visible(*event.idempotencyKey) << "\" repeated " << event.repeats
                << (event.repeats == 1 ? " time" : " times");
        }
        out << "\n" << visible(event.body) << "\n";
    }
}

}  // namespace NorvAnalytic::Collector
