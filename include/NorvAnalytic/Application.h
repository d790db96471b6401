#pragma once

#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/URL.h>

#include <memory>

namespace NorvAnalytic {

class Window;

// The host application, as far as the update prompt needs it.
class NORVANALYTIC_EXPORT Application {
public:
    virtual ~Application() = default;
    virtual std::shared_ptr<Window> keyWindow() const = 0;
    virtual bool canOpenURL(const URL& url) = 0;
    virtual bool openURL(const URL& url) = 0;
};

}  // namespace NorvAnalytic
