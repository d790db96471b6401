#pragma once

namespace NorvAnalytic {

// Erases the device UUID and the store user id from the keychain, leaving no copy of either
// in the data directory (free pages, journals and moved-aside stores included). Any thread but
// the keychain's own; waits for the store.
void eraseDeviceIdentity() noexcept;

}  // namespace NorvAnalytic
