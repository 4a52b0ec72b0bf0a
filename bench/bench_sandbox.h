// A private HOME and device root for a whole benchmark run, so that logs and results stay out of
// the user's folders; removed at exit.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace vl::bench {

class Sandbox {
 public:
  Sandbox() {
    char pattern[] = "/tmp/vorlund-bench-XXXXXX";
    if (const char* made = mkdtemp(pattern)) dir_ = made;
    std::filesystem::create_directories(dir_ + "/home");
    std::filesystem::create_directories(dir_ + "/root");
    setenv("HOME", (dir_ + "/home").c_str(), 1);
    setenv("VORLUND_ROOT", (dir_ + "/root").c_str(), 1);
  }
  ~Sandbox() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& path() const { return dir_; }
  // A path in the sandbox that holds nothing yet (whatever an earlier run left there is removed).
  std::string freshPath(const std::string& name) const {
    std::string path = dir_ + "/" + name;
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
    for (const char* companion : {"-journal", "-wal", "-shm"}) {
      std::filesystem::remove(path + companion, ignored);
    }
    return path;
  }

 private:
  std::string dir_;
};

// The sandbox of the run, made on first use.
inline Sandbox& sandbox() {
  static Sandbox instance;
  return instance;
}

}  // namespace vl::bench
