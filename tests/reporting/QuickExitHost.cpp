// A host that starts the SDK, sends a burst of events to the URL it is given and returns
// from main at once, with the requests still in flight.
#include <NorvAnalytic/NorvAnalytic.h>

#include <string>

int main(int argc, char** argv) {
    using NorvAnalytic::NorvAnalytics;
    if (argc < 2) {
        return 2;
    }
    NorvAnalytics::initWithKey(std::string("exit-key"));
    NorvAnalytics::sharedController().setUrlString(std::string(argv[1]));
    for (int i = 0; i < 200; ++i) {
        NorvAnalytics::sendEventWithPageName("page-" + std::to_string(i));
        NorvAnalytics::sendAppOpenEvent();
    }
    return 0;
}
