#pragma once

#include <NorvAnalytic/HttpClient.h>

#include <memory>
#include <optional>
#include <string>

#include "reporting/SentEvent.h"

namespace NorvAnalytic {

// Carries answers to the main queue. Answers that arrive before the main queue has taken the
// earlier ones join them, so a burst of answers costs one main-queue task, not one wake each.
// It holds at most OutgoingEvents::kWindow answers: no more events go to the client until the
// main queue has handled answers.
class AnswerBatch {
public:
    struct Answer {
        // The event's flush ticket ends with it, once its answer is handled.
        std::shared_ptr<const SentEvent> event;
        std::optional<std::string> data;
        std::optional<HttpResponse> response;
        std::optional<std::string> transportError;
    };

    // Any thread; the answers are handled later on the main queue, in arrival order.
    static void add(Answer answer);

private:
    static void handleAll();
};

}  // namespace NorvAnalytic
