// Test case lookup: a test case name, or a request dictionary, becomes a ready VLTestCaseObject,
// built from the declaration of the bundle that offers it with the run's preferences laid over its
// options, and with its environments recomputed from the run's configuration.
#pragma once

#include <memory>
#include <string>

#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/foundation/value.h"

// The read-only file of option values laid over the preferences ("~" is $HOME).
inline constexpr const char* kVLOptionPreferencesPath =
    "~/Library/Preferences/com.brindle.Vorlund.plist";

// The test case name of the bundle that offers it (the bundle is loaded), made from its entry in
// "Supported Test Cases". Every option key that is also a key of the preferences
// (VLGetPreferences() with the entries of kVLOptionPreferencesPath on top) takes the preference's
// value; preferences never add options. Environments are then recomputed from the preferences
// (VLAdjustTestCaseEnvironments). nullptr for an empty name, when no bundle offers the name, and
// when the bundle has no entry of that name (logged at level 16, category "Framework").
std::shared_ptr<VLTestCaseObject> VLGetObjectForTestCase(const std::string& name);

// The test case that dictionary asks for: the predefined test case of its "Name" with its
// "Selector", "Technology" and "Type" replaced where given, else an ad hoc test case made from the
// dictionary, which must then give "Selector" (listed by some bundle), "Technology" and "Type".
// "Options" are laid over the resolved options (the request wins) and "Tags" replace the tags.
// nullptr, logged at level 16 (category "Framework"), when there is no "Name", when an ad hoc
// definition misses a mandatory field, or when no bundle lists its selector.
std::shared_ptr<VLTestCaseObject> VLGetObjectForDictionary(const vl::Dictionary& dictionary);

// Recomputes the test case's environments from a configuration dictionary (the preferences, or
// any dictionary of the same shape): the names of every environment that lists the test case's
// name, each once. This replaces the bundle's own list, and may leave it empty. A configuration
// without "Environments" leaves the test case as it is.
void VLAdjustTestCaseEnvironments(const std::shared_ptr<VLTestCaseObject>& testCase,
                                  const vl::Dictionary& configuration);
