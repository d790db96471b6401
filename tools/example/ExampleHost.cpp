// An example host: it starts the SDK the way an application does and reports one event of
// every kind to the collection server, then lets the resend timer run for a while.
//
//   norv-example-host [--url URL] [--events all|app-open] [--wait SECONDS] [--log-level N]

#include <NorvAnalytic/NorvAnalytic.h>

#include <NorvAnalytic/Bundle.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

namespace {

using namespace NorvAnalytic;

// The SDK's headless application, except that opening a URL is printed, not performed.
class PrintingApplication final : public Application {
public:
    explicit PrintingApplication(std::shared_ptr<Application> headless)
        : headless_(std::move(headless)) {}
    std::shared_ptr<Window> keyWindow() const override { return headless_->keyWindow(); }
    bool canOpenURL(const URL& url) override { return headless_->canOpenURL(url); }
    bool openURL(const URL& url) override {
        std::cout << "example-host: \"Update\" opens " << url.absoluteString() << std::endl;
        return true;
    }

private:
    std::shared_ptr<Application> headless_;
};

struct Options {
    std::string url;
    std::string events = "all";
    double waitSeconds = 4.0;
    int logLevel = 1;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        const bool hasValue = i + 1 < argc;
        if (flag == "--url" && hasValue) {
            options.url = argv[++i];
        } else if (flag == "--events" && hasValue) {
            options.events = argv[++i];
        } else if (flag == "--wait" && hasValue) {
            options.waitSeconds = std::atof(argv[++i]);
        } else if (flag == "--log-level" && hasValue) {
            options.logLevel = std::atoi(argv[++i]);
        } else {
            std::cerr << "usage: norv-example-host [--url URL] [--events all|app-open] "
                         "[--wait SECONDS] [--log-level N]\n";
            std::exit(2);
        }
    }
    return options;
}

void sendEveryKind() {
    NorvAnalytics::sendAppOpenEventWithUsername(std::string("ann"), std::string("Scanner 7"));
    NorvAnalytics::sendUserLoginEventWithParameters(std::string("user=ann"),
                                                    std::string("{token=...}"),
                                                    std::string("ann"), std::string("North"));
    NorvAnalytics::sendUserCanNotLoginEventWithParameters(
        std::string("user=bob"), std::string("401"), std::string("wrong password"));
    NorvAnalytics::sendEventWithPageName(std::string("Orders"));
    const auto start = std::chrono::system_clock::now();
    NorvAnalytics::sendRequestStartTime(start, std::string("/api/orders"));
    NorvAnalytics::sendRequestEndTime(start + std::chrono::milliseconds(250),
                                      std::string("/api/orders"), std::string("page=1"),
                                      std::string("200 OK"));
    NorvAnalytics::sendDataNotRetrievedEventWithEndpoint(
        std::string("/api/stock"), std::string("sku=42"), std::string("timeout"));
    NorvAnalytics::sendBluetoothStatusEventWithValue(3);
    NorvAnalytics::sendLocationServiceStatusEventWithValue(2);
    NorvAnalytics::sendExternalAccessoryBatteryIsLowEvent();
    NorvAnalytics::sendExternalAccessoryBatteryStatusWithValue(18);
    NorvAnalytics::sendEventWithPlayerId(std::string("player-0042"));
    NorvAnalytics::sendDeviceCustomName(std::string("Till 3"));
    NorvAnalytics::sendEventWithType(2, 1.0F, std::string("/legacy"), std::nullopt,
                                     std::nullopt);
    NorvAnalytics::sendUsername(std::string("ann"));
    NorvAnalytics::sendWarehouse(std::string("North"));
    NorvAnalytics::sendError(std::string("printer offline"));
    NorvAnalytics::sendDeviceName(std::string("Scanner 7"));
    NorvAnalytics::sendUserLogoutEvent();
    NorvAnalytics::sendAppCloseEvent();
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    Platform::setDiagnosticsSink([](DiagnosticLevel level, const std::string& line) {
        static constexpr const char* kLevels[] = {"debug", "info", "warning", "error"};
        std::cerr << "example-host: diagnostics (" << kLevels[static_cast<int>(level)]
                  << "): " << line << std::endl;
    });

    Bundle::setMainBundle(std::make_shared<Bundle>(
        "com.example.NorvHost",
        Bundle::InfoDictionary{{"CFBundleShortVersionString", "2.3"}, {"CFBundleVersion", "41"}}));
    Platform::setApplication(std::make_shared<PrintingApplication>(Platform::application()));

    NorvAnalytics::initWithKey(std::string("demo-app-key"));
    NorvAnalytics::setSecureUrl(false);
    NorvAnalytics::setLogLevel(options.logLevel);
    NorvAnalytics::checkUpdates(true);
    if (!options.url.empty()) {
        NorvAnalytics::sharedController().setUrlString(options.url);
    }
    NorvAnalytics::saveStoreUserID(std::string("store-user-1001"));
    std::cout << "example-host: device " << NorvAnalytics::getNorvAnalyticUUID() << ", posting to "
              << NorvAnalytics::sharedController().urlString().value_or("(null)") << std::endl;

    if (options.events == "app-open") {
        NorvAnalytics::sendAppOpenEvent();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        // Dropped when the answer to the app-open event switched collection off.
        NorvAnalytics::sendEventWithPageName(std::string("Dashboard"));
    } else {
        sendEveryKind();
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(options.waitSeconds));
    // The answers to the last events, resends included, before the summary and the exit.
    if (!NorvAnalytics::flush(std::chrono::seconds(10))) {
        std::cout << "example-host: some answers did not come within 10 s" << std::endl;
    }

    MainQueue::main().sync([] {
        auto& controller = NorvAnalytics::sharedController();
        std::cout << "example-host: collection is " << (controller.isEnabled() ? "on" : "off")
                  << ", " << Event::savedEvents().size() << " saved events left" << std::endl;
        if (auto alert = controller.alertController()) {
            std::cout << "example-host: alert \"" << alert->title().value_or("") << "\" with";
            for (const auto& action : alert->actions()) {
                std::cout << " [" << action->title() << "]";
            }
            std::cout << std::endl;
            alert->tapActionAtIndex(0);
        }
    });
    return 0;
}
