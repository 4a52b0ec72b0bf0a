// Helpers of the fuzz targets. Every target also links fuzz_support.cc, whose initialiser sends
// logging and every file the library reads or writes to a private temporary home and device root,
// never the user's.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/paths.h"

namespace vl::fuzz {

// Puts bytes where a reader that takes a path expects its file. A plain write, not the library's
// atomic one: its fsync would cost more than the parse being fuzzed. A file that cannot be written
// is a fault of the harness, so it stops the run rather than passing silently.
inline void placeFile(const std::string& path, std::string_view bytes) {
  if (!vl::paths::createDirectories(vl::paths::deletingLastComponent(path))) ::abort();
  FILE* file = ::fopen(path.c_str(), "wbe");
  if (!file) ::abort();
  bool written = ::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (::fclose(file) != 0 || !written) ::abort();
}

// A property every accepted input must keep. A broken one is a finding like a crash: it prints
// what broke and aborts, so that libFuzzer keeps the input.
// detail, when given, says why (the error of the refusing call).
inline void require(bool holds, const char* what, const std::string& detail = {}) {
  if (holds) return;
  ::fprintf(stderr, "fuzz: broken invariant: %s%s%s\n", what, detail.empty() ? "" : ": ",
            detail.c_str());
  ::abort();
}

}  // namespace vl::fuzz
