// The one libFuzzer initialiser of every target: a private home and device root under $TMPDIR, so
// that the runner (scripts/fuzz.sh) removes them with the rest of its scratch space; the log files
// grow by megabytes a minute.
#include <stdlib.h>

#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = ::getenv("TMPDIR");
  std::string home = std::string(tmp && *tmp ? tmp : "/tmp") + "/vorlund-fuzz-XXXXXX";
  if (!::mkdtemp(home.data())) return 1;
  ::setenv("HOME", home.c_str(), 1);
  ::setenv("VORLUND_ROOT", home.c_str(), 1);
  return 0;
}
