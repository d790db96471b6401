#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/LinuxDevice.h"

namespace NorvAnalytic {
namespace {

void write(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

TEST(LinuxDeviceTest, ReadsTheDistributionsVersionAndTheFirstBattery) {
    const auto root =
        std::filesystem::temp_directory_path() / ("norv-device-" + std::to_string(::getpid()));
    write(root / "os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n");
    write(root / "power/AC/type", "Mains\n");
    write(root / "power/BAT0/type", "Battery\n");
    write(root / "power/BAT0/capacity", "75\n");
    LinuxDevice device((root / "os-release").string(), (root / "power").string());
    utsname names{};
    ::uname(&names);
    EXPECT_EQ(device.systemVersion() + " " + device.machineIdentifier(),
              std::string("12 ") + names.machine);

    // The level is known only while monitoring is on, counted across callers.
    EXPECT_EQ(device.batteryLevel(), -1.0F);
    device.setBatteryMonitoringEnabled(true);
    device.setBatteryMonitoringEnabled(true);
    device.setBatteryMonitoringEnabled(false);
    EXPECT_EQ(device.batteryLevel(), 0.75F);
    write(root / "power/BAT0/capacity", "not a number\n");
    EXPECT_EQ(device.batteryLevel(), -1.0F);
    device.setBatteryMonitoringEnabled(false);
    device.setBatteryMonitoringEnabled(false);
    write(root / "power/BAT0/capacity", "40\n");
    EXPECT_EQ(device.batteryLevel(), -1.0F);

    // No os-release: the kernel's release stands in; no battery: unknown.
    LinuxDevice bare((root / "missing").string(), (root / "none").string());
    bare.setBatteryMonitoringEnabled(true);
    EXPECT_EQ(bare.systemVersion() + " " + std::to_string(bare.batteryLevel()),
              std::string(names.release) + " -1.000000");
    std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace NorvAnalytic
