#include "facade/EventDelivery.h"

#include <NorvAnalytic/MainQueue.h>

#include <atomic>
#include <mutex>

#include "events/AnswerRule.h"
#include "events/EventCatalogue.h"
#include "facade/AnswerHandling.h"
#include "facade/CollectionConsent.h"
#include "facade/ControllerState.h"
#include "facade/DeviceFactsReader.h"
#include "facade/ResendTimers.h"
#include "facade/SavedEventTags.h"
#include "platform/Diagnostics.h"

namespace NorvAnalytic {

namespace {

std::atomic<std::uint64_t> forgotten{0};

Text typeIdOf(const EventRecord& record) {
    const std::string* typeId = EventTable::find(record.texts, &Event::eventTypeId);
    return typeId ? Text(*typeId) : std::nullopt;
}

}  // namespace

Outbox& EventDelivery::outbox() {
    // A function-local static: after the first call, one load on the caller's path.
    static Outbox& connected = [] () -> Outbox& {
        Outbox::shared().connect({&DeviceFactsReader::shared(), &EventDelivery::answered,
                                  &EventDelivery::countDiscarded});
        return Outbox::shared();
    }();
    return connected;
}

std::uint64_t EventDelivery::discardedByForget() { return forgotten.load(std::memory_order_relaxed); }

void EventDelivery::countDiscarded(FenceKind kind, std::uint64_t count) {
    if (kind == FenceKind::DeviceForgotten) {
        forgotten.fetch_add(count, std::memory_order_relaxed);
    } else {
        CollectionConsent::countDiscarded(count);
    }
}

void EventDelivery::answered(std::shared_ptr<SentEvent> sent, std::optional<std::string> data,
                             std::optional<HttpResponse> response, std::optional<Error> error) {
    const Outgoing& outgoing = sent->outgoing;
    if (!data) {
        // No answer at all: the request never reached the server. With the file, the event
        // stays there for another try; without it, the event is dropped.
        const bool cancelled = error && error->domain == kHttpClientErrorDomain &&
                               error->code == HttpClientErrorCancelled;
        if (outgoing.row) {
            // Cancelled at exit: the row stays pending for the next process.
            sent->settle(cancelled ? Journal::Settlement::Untouched : Journal::Settlement::Unanswered);
            if (!cancelled) {
                // Its next try comes with a tick: the resend timers may be resting.
                ResendTimers::resendWorkAppeared();
            }
        } else if (!cancelled && Diagnostics::isOn()) {
            Diagnostics::report(DiagnosticLevel::Warning,
                                EventCatalogue::describe(typeIdOf(outgoing.record)) +
                                    " was not delivered: " +
                                    (error ? error->localizedDescription.value_or("") : "no answer"));
        }
        return;
    }
    const long statusCode = response ? response->statusCode : 0;
    const bool keeps = AnswerRule::keeps(statusCode, outgoing.record.isSavedEvent);
    const auto [logLevel, isEnabled] = ControllerState::locked(
        [](const ControllerState& state) { return std::pair(state.logLevel, state.isEnabled); });
    // Most answers end here, on the client's thread: delivered, and nobody reads them.
    if (!keeps && !AnswerRule::reads(typeIdOf(outgoing.record), logLevel, isEnabled)) {
        sent->settle(Journal::Settlement::Delivered);
        return;
    }
    MainQueue::main().async([sent = std::move(sent), data = std::move(*data), response, keeps]() mutable {
        Outgoing& outgoing = sent->outgoing;
        // A fence came between: the answer is neither read nor kept, and its row is gone.
        if (!PrivacyEpoch::isCurrent(outgoing.record.epoch)) {
            return;
        }
        std::string deviceUUID = outgoing.deviceUUID();
        const std::shared_ptr<Event> kept =
            handleAnswer(EventTable::context(outgoing.record.texts, std::move(deviceUUID),
                                             outgoing.takeSentBody(), outgoing.record.isSavedEvent),
                         std::move(data), response, keeps);
        if (kept) {
            SavedEventTags::shared().tag(kept, {outgoing.row, std::string(outgoing.record.key()),
                                                outgoing.record.epoch});
        }
        // A refused event the saved list let go at once leaves no row behind.
        sent->settle(kept ? Journal::Settlement::Kept : Journal::Settlement::Delivered);
    });
}

}  // namespace NorvAnalytic
