#include <NorvAnalytic/AlertAction.h>

namespace NorvAnalytic {

std::shared_ptr<AlertAction> AlertAction::actionWithTitle(std::string title, AlertActionStyle style,
                                                          Handler handler) {
    return std::shared_ptr<AlertAction>(
        new AlertAction(std::move(title), style, std::move(handler)));
}

AlertAction::AlertAction(std::string title, AlertActionStyle style, Handler handler)
    : title_(std::move(title)), style_(style), handler_(std::move(handler)) {}

}  // namespace NorvAnalytic
