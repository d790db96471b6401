#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace NorvAnalytic::Collector {

// A newer app version named in the steering block.
struct VersionOffer {
    std::string no;
    std::string downloadUrl;
};

// What the answers to app-open events tell the SDK.
struct Steering {
    bool analyticsEnabled = true;
    std::optional<VersionOffer> forceVersion;
    std::optional<VersionOffer> offerVersion;
    // Answers app-open events with "payload": null, which leaves the SDK's collection as it is.
    bool nullPayload = false;
};

// The next `remaining` events are answered with this status and body instead of being accepted.
struct Refusal {
    int status = 500;
    int remaining = 0;
    std::optional<std::string> body;
};

// The bodies of the control requests, checked: a JSON object in UTF-8 that names only known
// keys, each of its type and within its range. Each throws std::invalid_argument with the
// reason when the body is not so.
class ControlRequests {
public:
    static constexpr int kMaxRefusals = 1'000'000;

    // The steering after a change: {"analytics_enabled": bool, "null_payload": bool,
    // "force_version" and "offer_version": null or {"no": text, "download_url": text}}, each
    // key optional; what it leaves out stays as it was.
    static Steering steered(Steering steering, std::string_view body);
    // {"status": 100 to 599 (500), "count": 0 to kMaxRefusals (1), "body": text or null}.
    static Refusal refusal(std::string_view body);
    // Throws when the status or count is out of range.
    static void check(const Refusal& refusal);
};

}  // namespace NorvAnalytic::Collector
