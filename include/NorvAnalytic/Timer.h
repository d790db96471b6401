#pragma once

#include <NorvAnalytic/Export.h>

namespace NorvAnalytic {

// A timer scheduled on the main queue. Invalidating it stops it for good.
class NORVANALYTIC_EXPORT Timer {
public:
    virtual ~Timer() = default;
    virtual void invalidate() = 0;
    virtual bool isValid() const = 0;
};

}  // namespace NorvAnalytic
