#include "reporting/AnswerBatch.h"

#include <NorvAnalytic/MainQueue.h>

#include <mutex>
#include <utility>
#include <vector>

#include "reporting/OutgoingEvents.h"

namespace NorvAnalytic {

namespace {

// Beyond this many, the main queue's buffer is given back after a burst instead of kept.
constexpr std::size_t kKeptCapacity = 1024;

struct Waiting {
    std::mutex mutex;
    std::vector<AnswerBatch::Answer> answers;
};

// Never destroyed: answers may still arrive while the process exits.
Waiting& waiting() {
    static auto* instance = new Waiting;
    return *instance;
}

}  // namespace

void AnswerBatch::add(Answer answer) {
    Waiting& queue = waiting();
    std::unique_lock lock(queue.mutex);
    queue.answers.push_back(std::move(answer));
    if (queue.answers.size() > 1) {
        return;
    }
    lock.unlock();
    try {
        MainQueue::main().async(&AnswerBatch::handleAll);
    } catch (...) {
        // Out of memory: the waiting answers are dropped, so that a later one posts again.
        lock.lock();
        const std::size_t dropped = queue.answers.size();
        queue.answers.clear();
        lock.unlock();
        OutgoingEvents::shared().answersHandled(dropped);
    }
}

void AnswerBatch::handleAll() {
    // Swapped with the waiting list each time, so a steady stream reuses two buffers. Never
    // destroyed: the main queue may still run while the process exits.
    static auto& taken = *new std::vector<Answer>;
    {
        std::lock_guard lock(waiting().mutex);
        taken.swap(waiting().answers);
    }
    for (Answer& answer : taken) {
        try {
            handleAnswer(*answer.event, std::move(answer.data), answer.response,
                         std::move(answer.transportError));
        } catch (...) {
            // Out of memory: this one answer is dropped, the main queue goes on.
        }
        answer.event.reset();
    }
    const std::size_t handled = taken.size();
    taken.clear();
    if (taken.capacity() > kKeptCapacity) {
        taken = std::vector<Answer>();
    }
    OutgoingEvents::shared().answersHandled(handled);
}

}  // namespace NorvAnalytic
