#pragma once

#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/Timer.h>
#include <NorvAnalytic/Types.h>
#include <NorvAnalytic/ViewController.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace NorvAnalytic {

// The SDK's facade. Call initWithKey once at start-up, then the send… calls from any thread;
// each call becomes one event posted to the collection server at once.
class NORVANALYTIC_EXPORT NorvAnalytics {
public:
    // The one controller of the process, made on first use.
    static NorvAnalytics& sharedController();

    // Starts the SDK: stores the key, chooses the secure URL, makes sure a device UUID exists,
    // switches collection on and update checks off, and starts the one-second resend timer.
    static NorvAnalytics& initWithKey(const Text& key);
    // Posts to https:// (true) or http:// (false) on the collection server.
    static void setSecureUrl(bool secure);
    // How much the SDK logs about each answer: 0 (least) to 3 (most).
    static void setLogLevel(std::int32_t logLevel);
    // Whether the server may raise an update alert.
    static void checkUpdates(bool checkUpdates);
    // Points this process at another collection server, "host" or "host:port" (no scheme, no
    // path); initWithKey and setSecureUrl then build their URLs on it. Returns false, keeps the
    // previous host and says why on the diagnostics sink when the text is not such a host.
    static bool setCollectionServerHost(const std::string& host);
    // Waits until every event sent before the call has had its answer handled, or failed: true
    // then, false when the timeout passes first or when a bound dropped events since the previous
    // flush (droppedEventCount() grew). A timeout of zero or less only looks. Before it returns
    // true, what was said on the diagnostics sink meanwhile has reached it (within the timeout;
    // not when called from the sink itself). Never
    // waits on the main queue's own thread (with an executor, the host's thread that runs it):
    // there it returns false at once. Call it before returning from main.
    static bool flush(std::chrono::milliseconds timeout);
    // Bounds the events waiting to go to the collection server while the network is slower
    // than the host (defaults: 100,000 events, 32 MiB). When either is reached the oldest
    // waiting event is dropped, counted, and said once per burst on the diagnostics sink.
    static void setWaitingEventLimits(std::size_t maxEvents, std::size_t maxBytes);
    // How many events a bound dropped so far in this process: waiting ones, kept ones and,
    // with the persistent queue on, ones in its file.
    static std::uint64_t droppedEventCount();

    // The host's data. Each may be called before or after initWithKey, from any thread.
    // Off by default. When on, every accepted event not yet answered and every refused event
    // kept for resending is also written (off this thread, in group commits) to an SQLite file
    // beside the keychain, one per host bundle identifier; the next process of the host sends
    // them first, in their order, with their bodies, to their URLs. An event whose request got
    // no answer at all stays there and is sent again once the network is reachable. Turning
    // the queue off deletes the file.
    static void setPersistentQueue(bool enabled);
    // Allowed by default. While not allowed, an event call returns at once and its event is
    // discarded: nothing is sent, and the keychain, the queue file and the network are left
    // alone. Withdrawing is a fence: when it returns, every event recorded before it is
    // discarded wherever it waits (queued, kept for resending, in the queue file, or in the HTTP
    // client not yet written to the wire), and an answer that arrives later keeps nothing. Not
    // remembered across starts: a host whose user has not agreed calls it with false before
    // anything else, every start.
    static void setCollectionAllowed(bool allowed);
    // Events discarded because collection was not allowed, or withdrawn while they waited.
    static std::uint64_t discardedWithoutConsentCount();
    // Erases the device UUID and the store user id from the keychain and from every file of
    // ours in the data directory, and discards every event recorded before the call, wherever it
    // waits, as a withdrawal of consent does: none of them is ever sent with the new UUID. The
    // next event (when allowed) carries a new UUID; other processes of the host use the new one
    // within a second.
    static void forgetDevice();
    // Events forgetDevice() discarded.
    static std::uint64_t discardedByForgetCount();
    // Off by default. When on, every event is sent with an Idempotency-Key request header, made
    // once per event and the same on each resend of it (the one-second resend, and the next
    // process's from the persistent queue), so that a server can store it once. The body is
    // the same either way.
    static void setIdempotencyKeys(bool enabled);
    // Bounds the events kept for resending after the server refused them, in memory and in the
    // queue file (defaults: 10,000 events, 16 MiB). Beyond either the oldest is dropped,
    // counted in droppedEventCount() and said once per burst on the diagnostics sink.
    static void setSavedEventLimits(std::size_t maxEvents, std::size_t maxBytes);

    // Event calls. None blocks, none reports an error; before initWithKey they do nothing.
    static void sendUsername(const Text& username);
    static void sendWarehouse(const Text& warehouse);
    static void sendError(const Text& error);
    static void sendDeviceName(const Text& deviceName);
    static void sendEventWithPlayerId(const Text& playerId);
    static void sendEventWithPageName(const Text& pageName);
    static void sendUserLoginEventWithParameters(const Text& parameters, const Text& response);
    static void sendUserLoginEventWithParameters(const Text& parameters, const Text& response,
                                                 const Text& username);
    static void sendUserLoginEventWithParameters(const Text& parameters, const Text& response,
                                                 const Text& username, const Text& warehouse);
    static void sendUserCanNotLoginEventWithParameters(const Text& parameters,
                                                       const Text& response);
    static void sendUserCanNotLoginEventWithParameters(const Text& parameters, const Text& response,
                                                       const Text& error);
    static void sendUserLogoutEvent();
    static void sendDeviceCustomName(const Text& deviceCustomName);
    static void sendLocationServiceStatusEventWithValue(std::int64_t value);
    static void sendBluetoothStatusEventWithValue(std::int64_t value);
    static void sendExternalAccessoryBatteryIsLowEvent();
    static void sendExternalAccessoryBatteryStatusWithValue(std::int64_t value);
    static void sendAppOpenEventWithDeviceName(const Text& deviceName);
    static void sendAppOpenEvent();
    static void sendAppOpenEventWithUsername(const Text& username);
    static void sendAppOpenEventWithUsername(const Text& username, const Text& deviceName);
    static void sendAppCloseEvent();
    static void sendDataNotRetrievedEventWithEndpoint(const Text& endpoint, const Text& parameters,
                                                      const Text& response);
    static void sendEventWithType(std::int32_t type, float value, const Text& endpoint,
                                  const Text& parameters, const Text& response);

    // Response timing of the host's own requests: note a start, then report the end.
    static void sendRequestStartTime(const std::optional<Date>& startTime, const Text& endpoint);
    static void sendRequestEndTime(const std::optional<Date>& endTime, const Text& endpoint,
                                   const Text& parameters, const Text& response);

    // Device identity, kept in the keychain.
    static void setUUID();
    static std::string getNorvAnalyticUUID();
    static void saveStoreUserID(const Text& userId);

    // The one submission path every event takes.
    static void sendEventWithTypeId(const Text& typeId, float value, const Text& endpoint,
                                    const Text& parameters, const Text& response,
                                    const Text& pageName, const Text& playerId,
                                    const Text& username, const Text& warehouse, const Text& error,
                                    const Text& deviceCustomName, const Text& deviceName,
                                    bool isSavedEvent);
    // Appends "key=description" to a form body ("&" first unless the body is empty).
    static std::string& addObject(const Text& object, const std::string& key, std::string& body);
    // Handles the collection server's answer to one event. Main queue only.
    static void handleEventResponse(const EventResponseContext& context,
                                    std::optional<std::string> data,
                                    std::optional<HttpResponse> response,
                                    std::optional<std::string> transportError);

    // Writes "NorvAnalytic Log :\n <message>" to the console.
    void print(const std::string& message);

    // The event type catalogue.
    Text setTypeId(std::int32_t index);
    std::string getTypeName(const Text& typeId);

    // The resend timer's tick, and its connectivity test.
    void checkEvents();
    bool hasConnection();

    Text getDeviceModel();

    // The running app's version and the update prompt.
    std::string currentVersion();
    bool isNewVersion(const Text& version);
    std::shared_ptr<ViewController> topViewController();
    std::shared_ptr<ViewController> topViewController(std::shared_ptr<ViewController> controller);
    UpdatePromptResult presentUpdatePrompt(const std::optional<VersionEntry>& entry, bool forced);
    void openUpdateLink(const std::string& downloadLink);

    // Properties. Any thread may read or write them.
    Text key() const;
    void setKey(const Text& key);
    Text urlString() const;
    void setUrlString(const Text& urlString);
    bool isEnabled() const;
    void setIsEnabled(bool isEnabled);
    bool checkUpdates() const;
    std::int64_t logLevel() const;
    std::shared_ptr<Timer> timer() const;
    void setTimer(std::shared_ptr<Timer> timer);
    std::shared_ptr<AlertController> alertController() const;
    void setAlertController(std::shared_ptr<AlertController> alertController);

    NorvAnalytics(const NorvAnalytics&) = delete;
    NorvAnalytics& operator=(const NorvAnalytics&) = delete;

private:
    NorvAnalytics() = default;
};

}  // namespace NorvAnalytic
