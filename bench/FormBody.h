#pragma once

#include <string_view>

namespace NorvAnalytic::Bench {

// A form body of about the size the SDK sends for a page event, for the runs that send one body
// again and again without the SDK building it.
inline constexpr std::string_view kFormBody =
    "key=bench-key&value=0.000000&type=7&parameters=(null)&response=(null)&device_uuid="
    "0E9912D5-5B8A-4C3E-9D1F-2A6B7C8D9E0F&pageName=Orders&vbf_version=1.7.4&"
    "system_version=12&is_test_device=1&version=1.7.4&is_simulator=0&device_model=x";

}  // namespace NorvAnalytic::Bench
