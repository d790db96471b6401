#pragma once

#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/Types.h>

#include <memory>
#include <optional>
#include <string>

namespace NorvAnalytic {

// Handles the server's answer to one event on the main queue: keeps it when keeps says so, logs
// and steers. Returns the event as the saved list holds it, or null when it was not kept (or the
// list's bound dropped it at once).
std::shared_ptr<Event> handleAnswer(const EventResponseContext& context, std::string data,
                                    std::optional<HttpResponse> response, bool keeps);

}  // namespace NorvAnalytic
