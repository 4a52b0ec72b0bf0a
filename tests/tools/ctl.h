// Runs the real vorlundctl as the user runs it, and reads the run it shows.
#pragma once

#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/foundation/json.h"

namespace vl::test {

inline ChildResult ctl(std::vector<std::string> args) {
  args.insert(args.begin(), VORLUNDCTL_PATH);
  return runChild(args);
}

// The run that `results show --json` prints; empty (and a failure) when it prints none.
inline Dictionary shownRun() {
  auto shown = ctl({"results", "show", "--json"});
  std::optional<Value> json = json::parse(shown.out);
  bool ok = shown.exitStatus == 0 && json && json->isDictionary();
  if (!ok) ADD_FAILURE() << shown.out << shown.err;
  return ok ? *json->asDictionary() : Dictionary{};
}

// The statistic of the named test case in a shown run, or none.
inline const Dictionary* caseNamed(const Dictionary& run, const std::string& name) {
  const Array* cases = run.get("TestCases").asArray();
  for (size_t i = 0; cases && i < cases->size(); ++i) {
    const Dictionary* d = (*cases)[i].asDictionary();
    if (d && d->get("Name") == Value(name)) return d;
  }
  return nullptr;
}

}  // namespace vl::test
