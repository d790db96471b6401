#pragma once

#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/Timer.h>
#include <NorvAnalytic/Types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "BuildConfig.h"
#include "delivery/Destination.h"

namespace NorvAnalytic {

// The shared controller's properties, behind one lock so that any thread may read or write
// them. No I/O ever runs under the lock.
struct ControllerState {
    static ControllerState& shared();
    // Runs f on the state under its lock and returns what f returns.
    template <class F>
    static auto locked(F&& f) {
        ControllerState& state = shared();
        std::lock_guard lock(state.mutex);
        return f(state);
    }

    // After key or urlString changed.
    void updateDestination() {
        destination = urlString ? std::make_shared<const Destination>(Destination{key, *urlString})
                                : nullptr;
    }

    mutable std::mutex mutex;
    Text key;
    Text urlString;
    bool isEnabled = false;
    bool checkUpdates = false;
    std::int64_t logLevel = 0;
    std::shared_ptr<Timer> timer;
    std::shared_ptr<AlertController> alertController;
    // key and urlString as events take them; null while there is no URL.
    std::shared_ptr<const Destination> destination;
    // Not a property: the process's collection server, which the two URL forms are built on.
    std::string collectionServerHost = BuildConfig::kCollectionServerHost;
};

}  // namespace NorvAnalytic
