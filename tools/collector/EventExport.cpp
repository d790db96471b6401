#include "EventExport.h"

#include <nlohmann/json.hpp>
#include <string_view>

#include "EventSummary.h"
#include "events/EventCatalogue.h"

namespace NorvAnalytic::Collector {

namespace {

// A spreadsheet runs a cell that begins with one of these as a formula; a leading ' makes it
// text, as OWASP's advice on CSV injection has it.
std::string csvField(const std::string& value) {
    const std::string text =
        !value.empty() && std::string_view("=+-@\t\r").find(value.front()) != std::string_view::npos
            ? "'" + value
            : value;
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return quoted + "\"";
}

}  // namespace

bool EventExport::knows(const std::string& format) { return format == "jsonl" || format == "csv"; }

std::string EventExport::header(const std::string& format) {
    return format == "csv" ? "id,received_at,status,type,type_name,device,summary,body,answer,"
                             "idempotency_key,repeats\r\n"
                           : "";
}

std::string EventExport::line(const std::string& format, const StoredEvent& event) {
    const std::optional<std::string> type = event.value("type");
    const std::string fields[] = {std::to_string(event.id),
                                  event.receivedAt,
                                  std::to_string(event.status),
                                  type.value_or(""),
                                  EventCatalogue::typeName(type),
                                  event.value("device_uuid").value_or(""),
                                  EventSummary::of(event),
                                  event.body,
                                  event.answer,
                                  event.idempotencyKey.value_or(""),
                                  std::to_string(event.repeats)};
    if (format == "csv") {
        std::string line;
        for (const std::string& field : fields) {
            line += (line.empty() ? "" : ",") + csvField(field);
        }
        return line + "\r\n";
    }
    nlohmann::ordered_json json{
        {"id", event.id},
        {"received_at", fields[1]},
        {"status", event.status},
        {"type", type ? nlohmann::ordered_json(*type) : nullptr},
        {"type_name", fields[4]},
        {"device", fields[5]},
        {"summary", fields[6]},
        {"body", fields[7]},
        {"answer", fields[8]},
        {"idempotency_key",
         event.idempotencyKey ? nlohmann::ordered_json(*event.idempotencyKey) : nullptr},
        {"repeats", event.repeats}};
    // Bodies are bytes from anywhere: what is not UTF-8 is written replaced.
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string EventExport::contentType(const std::string& format) {
    return format == "csv" ? "text/csv; charset=utf-8" : "application/x-ndjson";
}

}  // namespace NorvAnalytic::Collector
