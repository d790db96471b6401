#include "delivery/RetryRound.h"

namespace NorvAnalytic {

void RetryRound::counted(std::size_t unanswered) { unanswered_ = unanswered; }

void RetryRound::tick() {
    if (unanswered_ > 0 && allowance_ == 0 && inFlight_ == 0) {
        active_ = true;
        allowance_ = 1;
    }
}

void RetryRound::tried() {
    allowance_ -= allowance_ == kAll || allowance_ == 0 ? 0 : 1;
    ++inFlight_;
}

void RetryRound::tryAnswered(bool answered) {
    unanswered_ += answered ? 0 : 1;
    // An answer that comes after its round ended starts nothing: the round's rows may still be
    // on their way.
    if (active_) {
        allowance_ = answered ? kAll : 0;
    }
}

void RetryRound::tryEnded() { inFlight_ -= inFlight_ > 0 ? 1 : 0; }

void RetryRound::finish() {
    allowance_ = 0;
    active_ = false;
}

}  // namespace NorvAnalytic
