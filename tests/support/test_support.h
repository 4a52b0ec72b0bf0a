// Helpers shared by the tests: a temporary folder that is removed afterwards, scoped environment
// variables, and a sandbox that points HOME and VORLUND_ROOT into a temporary folder.
#pragma once

#include <optional>
#include <string>

namespace vl::test {

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Sets (or, with none, unsets) an environment variable for the lifetime of the object.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// A temporary device: HOME is <tmp>/home and VORLUND_ROOT is <tmp>/root, both created.
class Sandbox {
 public:
  Sandbox();
  const std::string& home() const { return home_; }
  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return dir_.file(relative); }

 private:
  TempDir dir_;
  std::string home_;
  std::string root_;
  ScopedEnv homeEnv_;
  ScopedEnv rootEnv_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& contents);
bool fileExists(const std::string& path);

}  // namespace vl::test
