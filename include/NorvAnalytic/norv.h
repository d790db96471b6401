#ifndef NORVANALYTIC_NORV_H
#define NORVANALYTIC_NORV_H

/* NorvAnalytic for C hosts, and for every language that binds C. The same libNorvAnalytic.so
 * as the C++ facade; `pkg-config --cflags --libs norvanalytic`.
 *
 * Texts are UTF-8 (an invalid sequence is sent as U+FFFD); NULL is "no value" wherever a text
 * is optional. Booleans are int: 0 is false, anything else true. No call throws or aborts: a
 * bad argument (NULL where a text is required, a NULL buffer with a non-zero size) is said on
 * the diagnostics sink, and the call then does nothing. Any thread may make any call. */

#include <NorvAnalytic/Export.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How much a diagnostics line matters. */
enum {
    NORV_DIAGNOSTIC_DEBUG = 0,
    NORV_DIAGNOSTIC_INFO = 1,
    NORV_DIAGNOSTIC_WARNING = 2,
    NORV_DIAGNOSTIC_ERROR = 3
};

/* Receives what the console never shows: lost events, refused settings, failed stores, and bad
 * arguments to these calls. Runs on a thread of the SDK's, one line at a time in the order they
 * were said, a moment after they were said, and never under a lock of the SDK's: it may call
 * any norv_ function. `line` lives only for the call. */
typedef void (*norv_diagnostics_sink)(int level, const char* line, void* user);

/* Installs the sink with `user` handed back on every line; NULL turns it off. Returns once the
 * lines said before it reached the old sink and the old sink's last call returned (at once from
 * inside a sink), so the host may then free what the old `user` points at. */
NORVANALYTIC_EXPORT void norv_set_diagnostics_sink(norv_diagnostics_sink sink, void* user);

/* The host app's identity: its identifier (required) and its "CFBundleShortVersionString" and
 * "CFBundleVersion" values (NULL leaves them out). Call before norv_init_with_key. */
NORVANALYTIC_EXPORT void norv_set_main_bundle(const char* identifier, const char* short_version,
                                              const char* build_version);

/* Points this process at another collection server, "host" or "host:port". 1 when taken; 0,
 * with the reason on the diagnostics sink, when the text is no such host. */
NORVANALYTIC_EXPORT int norv_set_collection_server_host(const char* host);

/* Starts the SDK with the app key (required): collection on, update checks off, the resend
 * timer running. */
NORVANALYTIC_EXPORT void norv_init_with_key(const char* key);
/* https:// (1) or http:// (0) to the collection server. */
NORVANALYTIC_EXPORT void norv_set_secure_url(int secure);
/* Console detail about each answer, 0 (least) to 3 (most). */
NORVANALYTIC_EXPORT void norv_set_log_level(int32_t log_level);
/* Whether the server may raise the update alert. */
NORVANALYTIC_EXPORT void norv_check_updates(int check_updates);

/* Waits up to timeout_ms for every event sent before the call to be answered or failed: 1 then,
 * 0 when the time passed first (at once on the main queue's own thread) or when a bound dropped
 * events since the previous flush. Call before exit. */
NORVANALYTIC_EXPORT int norv_flush(int timeout_ms);
/* Bounds the events waiting for the network (defaults 100000 events, 32 MiB); beyond either,
 * the oldest is dropped and counted. */
NORVANALYTIC_EXPORT void norv_set_waiting_event_limits(size_t max_events, size_t max_bytes);
/* How many events a bound dropped so far in this process: waiting ones, kept ones and, with
 * the persistent queue on, ones in its file. */
NORVANALYTIC_EXPORT uint64_t norv_dropped_event_count(void);

/* The host's data. Each may be called before or after norv_init_with_key. */
/* Off (0) by default. On (1): every event not yet answered and every refused event kept for
 * resending is also written to an SQLite file beside the keychain, and the next process of the
 * host sends what is left there first; an event that got no answer at all stays and is sent
 * again. Off deletes the file. */
NORVANALYTIC_EXPORT void norv_set_persistent_queue(int enabled);
/* Allowed (1) by default. While 0, event calls discard their events and nothing is sent, read
 * or written; withdrawing discards every event recorded before it, wherever it waits (a request
 * already written to the wire may still be answered). Not remembered across starts: until the
 * user agrees, call it with 0 before anything else, every start. */
NORVANALYTIC_EXPORT void norv_set_collection_allowed(int allowed);
/* How many events were discarded because collection was not allowed. */
NORVANALYTIC_EXPORT uint64_t norv_discarded_without_consent_count(void);
/* Erases the device UUID and the store user id from the keychain and from every file of ours,
 * and discards every event recorded before the call, so none is sent with the new UUID; waits
 * for the keychain store. The next event carries a new UUID. */
NORVANALYTIC_EXPORT void norv_forget_device(void);
/* How many events norv_forget_device discarded. */
NORVANALYTIC_EXPORT uint64_t norv_discarded_by_forget_count(void);
/* Off (0) by default. On (1): every event carries an Idempotency-Key request header, the same on
 * every resend of it, for a server that stores an event once per key. */
NORVANALYTIC_EXPORT void norv_set_idempotency_keys(int enabled);
/* Bounds the events kept for resending after a refusal, in memory and in the queue file
 * (defaults 10000 events, 16 MiB); beyond either, the oldest is dropped and counted. */
NORVANALYTIC_EXPORT void norv_set_saved_event_limits(size_t max_events, size_t max_bytes);

/* Event calls: none blocks; before norv_init_with_key they do nothing. */
NORVANALYTIC_EXPORT void norv_send_username(const char* username);
NORVANALYTIC_EXPORT void norv_send_warehouse(const char* warehouse);
NORVANALYTIC_EXPORT void norv_send_error(const char* error);
NORVANALYTIC_EXPORT void norv_send_device_name(const char* device_name);
NORVANALYTIC_EXPORT void norv_send_device_custom_name(const char* device_custom_name);
NORVANALYTIC_EXPORT void norv_send_event_with_player_id(const char* player_id);
NORVANALYTIC_EXPORT void norv_send_event_with_page_name(const char* page_name);
NORVANALYTIC_EXPORT void norv_send_user_login_event(const char* parameters, const char* response,
                                                    const char* username, const char* warehouse);
NORVANALYTIC_EXPORT void norv_send_user_can_not_login_event(const char* parameters,
                                                            const char* response,
                                                            const char* error);
NORVANALYTIC_EXPORT void norv_send_user_logout_event(void);
NORVANALYTIC_EXPORT void norv_send_location_service_status_event(int64_t value);
NORVANALYTIC_EXPORT void norv_send_bluetooth_status_event(int64_t value);
NORVANALYTIC_EXPORT void norv_send_external_accessory_battery_is_low_event(void);
NORVANALYTIC_EXPORT void norv_send_external_accessory_battery_status(int64_t value);
NORVANALYTIC_EXPORT void norv_send_app_open_event(void);
NORVANALYTIC_EXPORT void norv_send_app_open_event_with_device_name(const char* device_name);
NORVANALYTIC_EXPORT void norv_send_app_open_event_with_username(const char* username,
                                                                const char* device_name);
NORVANALYTIC_EXPORT void norv_send_app_close_event(void);
NORVANALYTIC_EXPORT void norv_send_data_not_retrieved_event(const char* endpoint,
                                                            const char* parameters,
                                                            const char* response);
NORVANALYTIC_EXPORT void norv_send_event_with_type(int32_t type, float value, const char* endpoint,
                                                   const char* parameters, const char* response);

/* Response timing of the host's own requests, times in seconds since the Unix epoch: note a
 * start for an endpoint (required), then report its end. An end time that is NaN counts as no
 * time (elapsed 0); a start that is NaN, and any time more than 9e9 s (about 285 years) from
 * 1970, is a bad argument. */
NORVANALYTIC_EXPORT void norv_send_request_start_time(double start_time, const char* endpoint);
NORVANALYTIC_EXPORT void norv_send_request_end_time(double end_time, const char* endpoint,
                                                    const char* parameters, const char* response);

/* Device identity, kept in the keychain. */
NORVANALYTIC_EXPORT void norv_set_uuid(void);
/* Writes the device UUID into buffer, cut to size - 1 bytes and always terminated when size > 0,
 * and returns the length the whole text needs (36), as snprintf does. */
NORVANALYTIC_EXPORT size_t norv_get_uuid(char* buffer, size_t size);
/* Keeps the host's store user id; NULL deletes it. */
NORVANALYTIC_EXPORT void norv_save_store_user_id(const char* user_id);

#ifdef __cplusplus
}
#endif

#endif /* NORVANALYTIC_NORV_H */
