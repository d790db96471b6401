#pragma once

#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/norv.h>

#include <string>

namespace NorvAnalytic {

// The C host's diagnostics sink: the function and user pointer it gave, called with each line
// of the SDK's sink and with the C layer's own complaints about bad arguments.
class CSink {
public:
    // Swaps in the new sink and returns once no call to the old one runs any more (at once
    // when called from inside a sink), so a host may free what `user` points at afterwards.
    static void install(norv_diagnostics_sink sink, void* user);
    // Hands one line to the sink, if any; never throws.
    static void report(DiagnosticLevel level, const std::string& line) noexcept;

    CSink() = delete;
};

}  // namespace NorvAnalytic
