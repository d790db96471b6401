#pragma once

#include <NorvAnalytic/Export.h>

#include <functional>
#include <memory>
#include <string>

namespace NorvAnalytic {

enum class AlertActionStyle { Default, Cancel };

// One button of an alert.
class NORVANALYTIC_EXPORT AlertAction {
public:
    using Handler = std::function<void(const AlertAction&)>;

    static std::shared_ptr<AlertAction> actionWithTitle(std::string title, AlertActionStyle style,
                                                        Handler handler);

    const std::string& title() const { return title_; }
    AlertActionStyle style() const { return style_; }

private:
    AlertAction(std::string title, AlertActionStyle style, Handler handler);
    // Only a tap on the alert runs the handler.
    friend class AlertController;

    std::string title_;
    AlertActionStyle style_;
    Handler handler_;
};

}  // namespace NorvAnalytic
