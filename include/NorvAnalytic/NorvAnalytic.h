#pragma once

// The whole public interface of the SDK.

#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>

extern "C" {
// The framework's generic version marker: 1.0.
NORVANALYTIC_EXPORT extern const double NorvAnalyticVersionNumber;
// "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n"
NORVANALYTIC_EXPORT extern const unsigned char NorvAnalyticVersionString[];
}
