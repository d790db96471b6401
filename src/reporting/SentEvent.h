#pragma once

#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/Types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "reporting/EventFields.h"
#include "reporting/EventsInFlight.h"
#include "reporting/RequestBody.h"

namespace NorvAnalytic {

// One event from the host's call until its answer is handled, kept small because a burst may
// leave many thousands of them waiting: the present text fields packed into one string (inline
// when short, else one exact allocation), the device's facts shared by every event sent with
// the same ones, and the flush ticket inline. The body is built only when needed, byte for byte
// the same each time.
class SentEvent {
public:
    // The record without its packed texts, which are appended to texts instead: a waiting
    // event keeps them in the waiting list's storage, and gets them back by adoptTexts.
    SentEvent(const EventFields& event, std::shared_ptr<const DeviceFacts> facts, bool isSavedEvent,
              std::string& texts);
    SentEvent(SentEvent&&) noexcept = default;
    SentEvent& operator=(SentEvent&&) = delete;

    // Facts equal to the last ones given come back as the same shared object.
    static std::shared_ptr<const DeviceFacts> share(DeviceFacts facts);

    EventFields fields() const;
    Text typeId() const;
    const DeviceFacts& facts() const { return *facts_; }
    bool isSavedEvent() const { return isSavedEvent_; }
    std::string body() const { return RequestBody::build(fields(), *facts_); }
    // What handleEventResponse takes, the body included.
    EventResponseContext context() const;
    void adoptTexts(std::string texts) { texts_ = std::move(texts); }

private:
    static_assert(kEventFieldSlots[0].fields == &EventFields::typeId);
    static_assert(kEventFieldSlots.size() <= 16, "one presence bit per slot");

    // Calls visit(slot, text) for each present slot, in slot order.
    template <class Visit>
    void forEachText(Visit visit) const;

    std::shared_ptr<const DeviceFacts> facts_;
    // For each present slot in order: its length (7 bits a byte, low bits first), its bytes.
    std::string texts_;
    EventsInFlight::Ticket ticket_;
    float value_;
    std::uint16_t present_ = 0;
    bool isSavedEvent_;
};

// Whether an answer can change nothing at all: an event delivered whose answer nobody reads.
// Any thread; such an answer need not reach the main queue.
bool answerChangesNothing(const SentEvent& event, const std::optional<std::string>& data,
                          const std::optional<HttpResponse>& response);
// Handles one answer on the main queue: an answer that can change nothing but the saved-event
// list runs the keep rule alone, any other goes through handleEventResponse.
void handleAnswer(const SentEvent& event, std::optional<std::string> data,
                  std::optional<HttpResponse> response, std::optional<std::string> transportError);

}  // namespace NorvAnalytic
