#pragma once

#include <cstdint>

#include "delivery/Outbox.h"

namespace NorvAnalytic {

// The facade's side of delivery: the outbox, connected on first use to the device's facts and to
// what an answer means, which is decided here once. Any thread.
class EventDelivery {
public:
    static Outbox& outbox();
    // Events a forgotten device's fence discarded; those of a withdrawn consent are counted with
    // the other events discarded without consent.
    static std::uint64_t discardedByForget();
    // Counts what a fence discarded where the host sees it.
    static void countDiscarded(FenceKind kind, std::uint64_t count);

private:
    static void answered(std::shared_ptr<SentEvent> sent, std::optional<std::string> data,
                         std::optional<HttpResponse> response, std::optional<Error> error);
};

}  // namespace NorvAnalytic
