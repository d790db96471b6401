// The C API: each function converts its arguments and calls the facade; nothing thrown gets past.
#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/norv.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "platform/Diagnostics.h"

using NorvAnalytic::Date;
using NorvAnalytic::DiagnosticLevel;
using NorvAnalytic::NorvAnalytics;
using NorvAnalytic::Text;

namespace {

Text text(const char* value) { return value != nullptr ? Text(value) : std::nullopt; }

void badArgument(const char* function, const char* what) noexcept {
    try {
        NorvAnalytic::Diagnostics::report(
            DiagnosticLevel::Warning,
            std::string(function) + ": " + what + "; the call did nothing.");
    } catch (...) {  // no memory even for the line: nothing more to say
    }
}

// Runs `call`, turning anything it throws into a diagnostics line and `fallback`.
template <typename Result, typename Call>
Result guarded(const char* function, Result fallback, Call&& call) noexcept {
    try {
        return call();
    } catch (const std::exception& error) {
        badArgument(function, error.what());
    } catch (...) {
        badArgument(function, "an unknown exception");
    }
    return fallback;
}

template <typename Call>
void guarded(const char* function, Call&& call) noexcept {
    guarded(function, 0, [&] {
        call();
        return 0;
    });
}

// Seconds since the epoch as a date; nullopt for NaN and for what the clock cannot hold.
std::optional<Date> date(double seconds) {
    // system_clock counts nanoseconds in 64 bits: about 292 years either side of 1970.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 9.0e9) {
        return std::nullopt;
    }
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds)));
}

}  // namespace

extern "C" {

void norv_set_diagnostics_sink(norv_diagnostics_sink sink, void* user) {
    guarded(__func__, [&] {
        if (sink == nullptr) {
            NorvAnalytic::Platform::setDiagnosticsSink(nullptr);
            return;
        }
        NorvAnalytic::Platform::setDiagnosticsSink(
            [sink, user](DiagnosticLevel level, const std::string& line) {
                sink(static_cast<int>(level), line.c_str(), user);
            });
    });
}

void norv_set_main_bundle(const char* identifier, const char* short_version,
                          const char* build_version) {
    if (identifier == nullptr) {
        return badArgument(__func__, "the identifier is NULL");
    }
    guarded(__func__, [&] {
        NorvAnalytic::Bundle::InfoDictionary info;
        if (short_version != nullptr) {
            info.emplace("CFBundleShortVersionString", short_version);
        }
        if (build_version != nullptr) {
            info.emplace("CFBundleVersion", build_version);
        }
        NorvAnalytic::Bundle::setMainBundle(
            std::make_shared<NorvAnalytic::Bundle>(identifier, std::move(info)));
    });
}

int norv_set_collection_server_host(const char* host) {
    if (host == nullptr) {
        badArgument(__func__, "the host is NULL");
        return 0;
    }
    return guarded(__func__, 0, [&] { return NorvAnalytics::setCollectionServerHost(host) ? 1 : 0; });
}

void norv_init_with_key(const char* key) {
    if (key == nullptr) {
        return badArgument(__func__, "the key is NULL");
    }
    guarded(__func__, [&] { NorvAnalytics::initWithKey(std::string(key)); });
}

void norv_set_secure_url(int secure) {
    guarded(__func__, [&] { NorvAnalytics::setSecureUrl(secure != 0); });
}

void norv_set_log_level(int32_t log_level) {
    guarded(__func__, [&] { NorvAnalytics::setLogLevel(log_level); });
}

void norv_check_updates(int check_updates) {
    guarded(__func__, [&] { NorvAnalytics::checkUpdates(check_updates != 0); });
}

int norv_flush(int timeout_ms) {
    return guarded(__func__, 0, [&] {
        return NorvAnalytics::flush(std::chrono::milliseconds(timeout_ms)) ? 1 : 0;
    });
}

void norv_set_waiting_event_limits(size_t max_events, size_t max_bytes) {
    guarded(__func__, [&] { NorvAnalytics::setWaitingEventLimits(max_events, max_bytes); });
}

uint64_t norv_dropped_event_count(void) {
    return guarded(__func__, std::uint64_t{0}, [] { return NorvAnalytics::droppedEventCount(); });
}

void norv_set_persistent_queue(int enabled) {
    guarded(__func__, [&] { NorvAnalytics::setPersistentQueue(enabled != 0); });
}

void norv_set_collection_allowed(int allowed) {
    guarded(__func__, [&] { NorvAnalytics::setCollectionAllowed(allowed != 0); });
}

uint64_t norv_discarded_without_consent_count(void) {
    return guarded(__func__, std::uint64_t{0},
                   [] { return NorvAnalytics::discardedWithoutConsentCount(); });
}

void norv_forget_device(void) {
    guarded(__func__, [] { NorvAnalytics::forgetDevice(); });
}

uint64_t norv_discarded_by_forget_count(void) {
    return guarded(__func__, std::uint64_t{0}, [] { return NorvAnalytics::discardedByForgetCount(); });
}

void norv_set_idempotency_keys(int enabled) {
    guarded(__func__, [&] { NorvAnalytics::setIdempotencyKeys(enabled != 0); });
}

void norv_set_saved_event_limits(size_t max_events, size_t max_bytes) {
    guarded(__func__, [&] { NorvAnalytics::setSavedEventLimits(max_events, max_bytes); });
}

void norv_send_username(const char* username) {
    guarded(__func__, [&] { NorvAnalytics::sendUsername(text(username)); });
}

void norv_send_warehouse(const char* warehouse) {
    guarded(__func__, [&] { NorvAnalytics::sendWarehouse(text(warehouse)); });
}

void norv_send_error(const char* error) {
    guarded(__func__, [&] { NorvAnalytics::sendError(text(error)); });
}

void norv_send_device_name(const char* device_name) {
    guarded(__func__, [&] { NorvAnalytics::sendDeviceName(text(device_name)); });
}

void norv_send_device_custom_name(const char* device_custom_name) {
    guarded(__func__, [&] { NorvAnalytics::sendDeviceCustomName(text(device_custom_name)); });
}

void norv_send_event_with_player_id(const char* player_id) {
    guarded(__func__, [&] { NorvAnalytics::sendEventWithPlayerId(text(player_id)); });
}

void norv_send_event_with_page_name(const char* page_name) {
    guarded(__func__, [&] { NorvAnalytics::sendEventWithPageName(text(page_name)); });
}

void norv_send_user_login_event(const char* parameters, const char* response, const char* username,
                                const char* warehouse) {
    guarded(__func__, [&] {
        NorvAnalytics::sendUserLoginEventWithParameters(text(parameters), text(response),
                                                        text(username), text(warehouse));
    });
}

void norv_send_user_can_not_login_event(const char* parameters, const char* response,
                                        const char* error) {
    guarded(__func__, [&] {
        NorvAnalytics::sendUserCanNotLoginEventWithParameters(text(parameters), text(response),
                                                              text(error));
    });
}

void norv_send_user_logout_event(void) {
    guarded(__func__, [] { NorvAnalytics::sendUserLogoutEvent(); });
}

void norv_send_location_service_status_event(int64_t value) {
    guarded(__func__, [&] { NorvAnalytics::sendLocationServiceStatusEventWithValue(value); });
}

void norv_send_bluetooth_status_event(int64_t value) {
    guarded(__func__, [&] { NorvAnalytics::sendBluetoothStatusEventWithValue(value); });
}

void norv_send_external_accessory_battery_is_low_event(void) {
    guarded(__func__, [] { NorvAnalytics::sendExternalAccessoryBatteryIsLowEvent(); });
}

void norv_send_external_accessory_battery_status(int64_t value) {
    guarded(__func__, [&] { NorvAnalytics::sendExternalAccessoryBatteryStatusWithValue(value); });
}

void norv_send_app_open_event(void) {
    guarded(__func__, [] { NorvAnalytics::sendAppOpenEvent(); });
}

void norv_send_app_open_event_with_device_name(const char* device_name) {
    guarded(__func__, [&] { NorvAnalytics::sendAppOpenEventWithDeviceName(text(device_name)); });
}

void norv_send_app_open_event_with_username(const char* username, const char* device_name) {
    guarded(__func__, [&] {
        NorvAnalytics::sendAppOpenEventWithUsername(text(username), text(device_name));
    });
}

void norv_send_app_close_event(void) {
    guarded(__func__, [] { NorvAnalytics::sendAppCloseEvent(); });
}

void norv_send_data_not_retrieved_event(const char* endpoint, const char* parameters,
                                        const char* response) {
    guarded(__func__, [&] {
        NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(text(endpoint), text(parameters),
                                                             text(response));
    });
}

void norv_send_event_with_type(int32_t type, float value, const char* endpoint,
                               const char* parameters, const char* response) {
    guarded(__func__, [&] {
        NorvAnalytics::sendEventWithType(type, value, text(endpoint), text(parameters),
                                         text(response));
    });
}

void norv_send_request_start_time(double start_time, const char* endpoint) {
    if (endpoint == nullptr) {
        return badArgument(__func__, "the endpoint is NULL");
    }
    const std::optional<Date> start = date(start_time);
    if (!start) {
        return badArgument(__func__, "the start time is no time the clock can hold");
    }
    guarded(__func__, [&] { NorvAnalytics::sendRequestStartTime(start, std::string(endpoint)); });
}

void norv_send_request_end_time(double end_time, const char* endpoint, const char* parameters,
                                const char* response) {
    if (endpoint == nullptr) {
        return badArgument(__func__, "the endpoint is NULL");
    }
    const std::optional<Date> end = date(end_time);
    if (!end && !std::isnan(end_time)) {
        return badArgument(__func__, "the end time is no time the clock can hold");
    }
    guarded(__func__, [&] {
        NorvAnalytics::sendRequestEndTime(end, std::string(endpoint), text(parameters),
                                          text(response));
    });
}

void norv_set_uuid(void) {
    guarded(__func__, [] { NorvAnalytics::setUUID(); });
}

size_t norv_get_uuid(char* buffer, size_t size) {
    if (buffer == nullptr && size != 0) {
        badArgument(__func__, "the buffer is NULL but its size is not 0");
        return 0;
    }
    return guarded(__func__, std::size_t{0}, [&] {
        const std::string uuid = NorvAnalytics::getNorvAnalyticUUID();
        if (size > 0) {
            const std::size_t copied = std::min(uuid.size(), size - 1);
            std::memcpy(buffer, uuid.data(), copied);
            buffer[copied] = '\0';
        }
        return uuid.size();
    });
}

void norv_save_store_user_id(const char* user_id) {
    guarded(__func__, [&] { NorvAnalytics::saveStoreUserID(text(user_id)); });
}

}  // extern "C"
