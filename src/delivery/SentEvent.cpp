#include "delivery/SentEvent.h"

#include "delivery/Outbox.h"

namespace NorvAnalytic {

SentEvent::~SentEvent() {
    Outbox& outbox = Outbox::shared();
    if (outgoing.retried) {
        outbox.journal().retryEnded(outgoing.row);
    }
    outbox.released(generation_);
}

void SentEvent::settle(Journal::Settlement settlement) {
    Outbox::shared().journal().settle(outgoing.row, settlement, outgoing.retried);
}

}  // namespace NorvAnalytic
