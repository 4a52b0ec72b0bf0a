#include "support/test_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace vl::test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vorlund-test-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) previous_ = old;
  if (value) {
    setenv(name_.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

ScopedEnv::~ScopedEnv() {
  if (previous_) {
    setenv(name_.c_str(), previous_->c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

Sandbox::Sandbox()
    : home_(dir_.file("home")),
      root_(dir_.file("root")),
      homeEnv_("HOME", home_),
      rootEnv_("VORLUND_ROOT", root_) {
  std::filesystem::create_directories(home_);
  std::filesystem::create_directories(root_);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& contents) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

namespace {

// Every test binary runs in a private HOME and VORLUND_ROOT, so that nothing a test logs or saves
// reaches the real home folder. Children that a test starts inherit the marker and keep whatever
// HOME the test gave them.
constexpr const char* kSandboxedMarker = "VORLUND_TEST_SANDBOXED";

class ProcessSandbox : public ::testing::Environment {
 public:
  void SetUp() override {
    if (std::getenv(kSandboxedMarker)) return;
    sandbox_ = std::make_unique<Sandbox>();
    setenv(kSandboxedMarker, "1", 1);
  }
  void TearDown() override { sandbox_.reset(); }

 private:
  std::unique_ptr<Sandbox> sandbox_;
};

[[maybe_unused]] ::testing::Environment* const kProcessSandbox =
    ::testing::AddGlobalTestEnvironment(new ProcessSandbox);

}  // namespace

}  // namespace vl::test
