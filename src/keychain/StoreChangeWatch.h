#pragma once

namespace NorvAnalytic {

// A store of ours that can tell when another process may have changed it, so that the cached
// identity is read again then, and not on a clock.
class StoreChangeWatch {
public:
    virtual ~StoreChangeWatch() = default;
    // A descriptor that turns readable when the store may have changed; -1 while none can be
    // had (asked again later). Owned by the store.
    virtual int changeDescriptor() = 0;
    // After the descriptor turned readable: empties it; true when an item may have changed.
    virtual bool takeChanges() = 0;
};

}  // namespace NorvAnalytic
