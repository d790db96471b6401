#pragma once

#include <NorvAnalytic/Export.h>

#include <memory>

namespace NorvAnalytic {

class ViewController;

// A window of the host's UI.
class NORVANALYTIC_EXPORT Window {
public:
    virtual ~Window() = default;
    virtual std::shared_ptr<ViewController> rootViewController() const = 0;
};

}  // namespace NorvAnalytic
