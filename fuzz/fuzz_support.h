// Shared set-up of the fuzz targets: logging goes to a private temporary home, not the user's.
#pragma once

#include <stdlib.h>

#include <string>

namespace vl::fuzz {

inline void useTemporaryHome() {
  static std::string home = [] {
    char pattern[] = "/tmp/vorlund-fuzz-XXXXXX";
    const char* dir = ::mkdtemp(pattern);
    return std::string(dir ? dir : "/tmp");
  }();
  ::setenv("HOME", home.c_str(), 1);
  ::setenv("VORLUND_ROOT", home.c_str(), 1);
}

}  // namespace vl::fuzz
