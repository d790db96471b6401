// A host built against the installed library: it must compile with the public headers alone,
// link, and find the exported symbols.
#include <NorvAnalytic/NorvAnalytic.h>

#include <cstdio>
#include <cstring>

int main() {
    using NorvAnalytic::NorvAnalytics;
    if (NorvAnalyticVersionNumber != 1.0 ||
        std::strcmp(reinterpret_cast<const char*>(NorvAnalyticVersionString),
                    "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n") != 0) {
        std::puts("consumer: wrong version constants");
        return 1;
    }
    // Before initWithKey nothing is sent, so this runs without a server.
    NorvAnalytics::sendAppOpenEvent();
    if (NorvAnalytics::sharedController().setTypeId(1) != "2" ||
        std::strlen(BrixKeychainErrorDomain) == 0) {
        std::puts("consumer: unexpected answer from the library");
        return 1;
    }
    std::puts("consumer: linked and ran against the installed NorvAnalytic");
    return 0;
}
