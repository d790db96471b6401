#pragma once

#include <NorvAnalytic/Types.h>

#include <cstdint>

namespace NorvAnalytic {

// What an answer asks of the SDK, decided from the event and the controller's settings alone.
class AnswerRule {
public:
    // A first send that the server answered with anything but 200 is kept for one resend.
    static bool keeps(long statusCode, bool isSavedEvent);
    // Whether reading the answer can change anything beyond the keep rule: an app-open answer
    // steers collection and updates, and levels 1 to 3 print a line per answer while collection
    // is on. Any other answer needs no JSON document at all.
    static bool reads(const Text& typeId, std::int64_t logLevel, bool isEnabled);
};

}  // namespace NorvAnalytic
