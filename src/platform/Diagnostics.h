#pragma once

#include <NorvAnalytic/Platform.h>

#include <string>

namespace NorvAnalytic {

// The diagnostics channel: a line goes to the host's sink when one is installed, else nowhere.
class Diagnostics {
public:
    static void setSink(Platform::DiagnosticsSink sink);
    // Cheap enough to guard building a message that would go nowhere.
    static bool isOn();
    static void report(DiagnosticLevel level, const std::string& message);
};

}  // namespace NorvAnalytic
