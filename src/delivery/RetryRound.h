#pragma once

#include <cstddef>
#include <limits>

namespace NorvAnalytic {

// When the queue file's unanswered rows (requests that got no answer at all) are tried again.
// A reachable tick of the resend timer starts a round with one try; once a try of the round is
// answered the server is back, and the rest of the round follows; a try that fails again ends
// it. No round starts while a try of the last one is still on its way, so no row is tried twice
// at once. Plain state: its owner locks it.
class RetryRound {
public:
    // How many unanswered rows the file holds, as last counted or as answers changed it.
    std::size_t unanswered() const { return unanswered_; }
    void counted(std::size_t unanswered);
    // An answer (or none) to a first send came back.
    void firstSendEnded(bool answered) { unanswered_ += answered ? 0 : 1; }
    // A tick found the network reachable: starts a round when rows wait and none is on its way.
    void tick();
    // How many rows a turn may read for tries now.
    std::size_t allowance() const { return allowance_; }
    void tried();
    void tryAnswered(bool answered);
    void tryEnded();
    // A read found no unanswered row left after the last one tried.
    void finish();
    void reset() { *this = RetryRound(); }

private:
    static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

    std::size_t unanswered_ = 0;
    std::size_t allowance_ = 0;
    std::size_t inFlight_ = 0;
    bool active_ = false;
};

}  // namespace NorvAnalytic
