// Reading the small text files that describe the device (sysfs, device tree, /etc) under the
// device root.
#pragma once

#include <string>
#include <string_view>

namespace vl::deviceinfo {

// The text without leading and trailing white space or NULs (device-tree strings end with one).
std::string trimmed(std::string_view text);
// The trimmed content of a device file under the device root; "" when it cannot be read.
std::string deviceFileText(const char* devicePath);

}  // namespace vl::deviceinfo
