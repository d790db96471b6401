#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

#include "delivery/EventsInFlight.h"
#include "events/AnswerRule.h"
#include "events/EventCatalogue.h"
#include "events/EventTable.h"
#include "events/SavedEvents.h"
#include "events/ServerAnswer.h"
#include "facade/AnswerHandling.h"
#include "mainqueue/MainQueueCheck.h"

namespace NorvAnalytic {

namespace {

std::string eventLine(std::int64_t logLevel, const std::string& typeName,
                      const std::string& message, const EventResponseContext& context,
                      const std::string& code) {
    switch (logLevel) {
        case 1:
            return "type = " + typeName + ",\n message = " + message +
                   ",\n deviceUUID = " + context.deviceUUID;
        case 2:
            return "type = " + typeName + ",\n message = " + message +
                   ",\n deviceUUID = " + context.deviceUUID + ",\n code = " + code;
        case 3:
            return "type = " + typeName + ",\n message = " + message +
                   ",\n deviceUUID = " + context.deviceUUID + ",\n code = " + code +
                   ",\n parameters = " + context.requestBody;
        default:
            return "";
    }
}

}  // namespace

void NorvAnalytics::handleEventResponse(const EventResponseContext& context,
                                        std::optional<std::string> data,
                                        std::optional<HttpResponse> response,
                                        [[maybe_unused]] std::optional<std::string> transportError) {
    assertOnMainQueue();
    // No answer at all: the request never reached the server, and the event is dropped. The
    // delivery has said why on the diagnostics sink.
    if (!data) {
        return;
    }
    const long statusCode = response ? response->statusCode : 0;
    handleAnswer(context, std::move(*data), response,
                 AnswerRule::keeps(statusCode, context.isSavedEvent));
}

std::shared_ptr<Event> handleAnswer(const EventResponseContext& context, std::string data,
                                    std::optional<HttpResponse> response, bool keeps) {
    assertOnMainQueue();
    NorvAnalytics& controller = NorvAnalytics::sharedController();
    std::shared_ptr<Event> kept;
    if (keeps) {
        kept = EventTable::savedEvent(context, response ? response->statusCode : 0);
        const SavedEvents::Appended appended = SavedEvents::append(kept);
        if (!appended.kept) {
            kept.reset();
        }
        if (appended.dropped > 0) {
            EventsInFlight::noteLost(appended.dropped);
        }
    }
    if (!AnswerRule::reads(context.typeId, controller.logLevel(), controller.isEnabled())) {
        return kept;
    }
    const std::optional<ServerAnswer::Json> document = ServerAnswer::parse(data);
    const ServerAnswer::Json* root = document ? &*document : nullptr;

    const std::string message = ServerAnswer::describe(ServerAnswer::member(root, "message"));
    std::string line =
        eventLine(controller.logLevel(), controller.getTypeName(context.typeId), message, context,
                  ServerAnswer::describe(ServerAnswer::member(root, "code")));

    if (EventCatalogue::isAppOpen(context.typeId)) {
        const ServerAnswer::Json* payload = ServerAnswer::member(root, "payload");
        // A null payload leaves collection as it is; an absent one (or an answer that is not
        // JSON) switches it off. The server relies on that difference.
        if (payload == nullptr || !payload->is_null()) {
            if (payload != nullptr && !payload->is_object()) {
                payload = nullptr;
            }
            controller.setIsEnabled(
                ServerAnswer::truth(ServerAnswer::member(payload, "analytics_enabled")));
            if (!controller.isEnabled()) {
                if (auto timer = controller.timer()) {
                    timer->invalidate();
                }
                Platform::log("Analytic is disabled from server " +
                              ServerAnswer::describe(payload));
                return kept;
            }
            if (controller.logLevel() == 0) {
                controller.print("Analytic is enabled,\n message = " + message);
                line.clear();
            } else {
                line = "Analytic is enabled,\n " + (line.empty() ? "(null)" : line);
            }
            if (controller.checkUpdates()) {
                // Only a JSON null means "no forced version"; an absent one still takes the
                // forced branch and finds nothing newer.
                const ServerAnswer::Json* forced = ServerAnswer::member(payload, "force_version");
                std::optional<UpdatePromptResult> result;
                if (forced == nullptr || !forced->is_null()) {
                    result =
                        controller.presentUpdatePrompt(ServerAnswer::versionEntry(forced), true);
                } else {
                    const ServerAnswer::Json* offered =
                        ServerAnswer::member(payload, "offer_version");
                    if (offered == nullptr || !offered->is_null()) {
                        result = controller.presentUpdatePrompt(ServerAnswer::versionEntry(offered),
                                                                false);
                    }
                }
                if (result == UpdatePromptResult::AlreadyShowing) {
                    return kept;
                }
            }
        }
    }

    if (!line.empty() && controller.isEnabled()) {
        controller.print(line);
    }
    return kept;
}

}  // namespace NorvAnalytic
