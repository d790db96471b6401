#pragma once

// The whole public interface of the SDK.

#include <NorvAnalytic/AlertAction.h>
#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/Application.h>
#include <NorvAnalytic/Bundle.h>
#include <NorvAnalytic/Connection.h>
#include <NorvAnalytic/CurlHttpClient.h>
#include <NorvAnalytic/Device.h>
#include <NorvAnalytic/Event.h>
#include <NorvAnalytic/Export.h>
#include <NorvAnalytic/HttpClient.h>
#include <NorvAnalytic/Keychain.h>
#include <NorvAnalytic/KeychainBackend.h>
#include <NorvAnalytic/MainQueue.h>
#include <NorvAnalytic/NorvAnalytics.h>
#include <NorvAnalytic/Platform.h>
#include <NorvAnalytic/ReachabilityService.h>
#include <NorvAnalytic/Timer.h>
#include <NorvAnalytic/Types.h>
#include <NorvAnalytic/URL.h>
#include <NorvAnalytic/ViewController.h>
#include <NorvAnalytic/Window.h>

extern "C" {
// The framework's generic version marker: 1.0.
NORVANALYTIC_EXPORT extern const double NorvAnalyticVersionNumber;
// "@(#)PROGRAM:NorvAnalytic  PROJECT:NorvAnalytic-1\n"
NORVANALYTIC_EXPORT extern const unsigned char NorvAnalyticVersionString[];
}
