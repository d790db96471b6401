#pragma once

#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/Types.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "reporting/EventFields.h"
#include "reporting/RequestBody.h"

namespace NorvAnalytic {

// What the answer to one event needs, held while its request is in flight. An absent field
// costs one null pointer, the device's facts are shared by every event sent with the same
// ones, and the body is not kept: an answer that needs it builds it again, byte for byte.
class SentEvent {
public:
    SentEvent(const EventFields& event, std::shared_ptr<const DeviceFacts> facts,
              bool isSavedEvent);

    // Facts equal to the last ones given come back as the same shared object.
    static std::shared_ptr<const DeviceFacts> share(DeviceFacts facts);

    EventFields fields() const;
    Text typeId() const { return texts_[0] ? Text(*texts_[0]) : std::nullopt; }
    const DeviceFacts& facts() const { return *facts_; }
    bool isSavedEvent() const { return isSavedEvent_; }
    // What handleEventResponse takes, the body included.
    EventResponseContext context() const;

private:
    static_assert(kEventFieldSlots[0].fields == &EventFields::typeId);

    std::array<std::unique_ptr<const std::string>, kEventFieldSlots.size()> texts_;
    std::shared_ptr<const DeviceFacts> facts_;
    float value_;
    bool isSavedEvent_;
};

// Handles one answer on the main queue: an answer that can change nothing but the saved-event
// list runs the keep rule alone, any other goes through handleEventResponse.
void handleAnswer(const SentEvent& event, std::optional<std::string> data,
                  std::optional<HttpResponse> response, std::optional<std::string> transportError);

}  // namespace NorvAnalytic
