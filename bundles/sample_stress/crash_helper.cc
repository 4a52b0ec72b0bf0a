// SampleCrasher: a helper program shipped inside the sample bundle that crashes on purpose, so that
// a run can show how a crash on the device becomes an issue. It installs the in-process crash
// reporter (where systemd-coredump handles crashes, the journal collector reports it instead) and
// then dies of the way asked for:
//   SampleCrasher [segv|abort|overflow] [--own-report]
// --own-report installs the reporter even where systemd-coredump runs.
#include <sys/mman.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "vorlund/devicetools/crash_handler.h"

namespace {

// Recurses until the stack is gone (long before the depth could end it); the volatile buffer keeps
// each frame's size.
[[gnu::noinline]] int overflow(int depth) {
  if (depth == std::numeric_limits<int>::max()) return 0;
  volatile char frame[4096];
  frame[0] = static_cast<char>(depth);
  return overflow(depth + 1) + frame[0];
}

}  // namespace

int main(int argc, char** argv) {
  std::string how = "segv";
  vl::CrashReportHandlerOptions options;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--own-report") == 0) {
      options.evenWithSystemdCoredump = true;
    } else {
      how = argv[i];
    }
  }
  std::string why;
  if (!vl::installCrashReportHandler(options, &why)) {
    std::fprintf(stderr, "SampleCrasher: no report of its own: %s\n", why.c_str());
  }
  std::fflush(nullptr);
  if (how == "abort") std::abort();
  if (how == "overflow") return overflow(0);
  if (how == "segv") {
    // A write to a page that allows no access: a real fault, and no null store for the
    // sanitizers to stop first.
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page != MAP_FAILED) *static_cast<volatile int*>(page) = 1;
  }
  std::fprintf(stderr, "usage: SampleCrasher [segv|abort|overflow] [--own-report]\n");
  return 2;
}
