// Small shell scripts standing in for device tools, in a folder put first on PATH (or, alone, as
// the whole PATH, so that the real tools of this machine are out of reach).
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "support/test_support.h"

namespace vl::test {

class FakeTools {
 public:
  enum class Path { kFirst, kAlone };
  explicit FakeTools(Path path = Path::kFirst)
      : path_("PATH", path == Path::kAlone ? dir_.path()
                                           : dir_.path() + ":" + std::string(getenv("PATH"))) {}
  // A bash script NAME running body.
  void add(const std::string& name, const std::string& body) {
    writeFile(dir_.file(name), "#!/bin/bash\n" + body + "\n");
    chmod(dir_.file(name).c_str(), 0755);
  }
  std::string file(const std::string& name) const { return dir_.file(name); }

 private:
  TempDir dir_;
  ScopedEnv path_;
};

}  // namespace vl::test
