// The per-user preferences of a stress run: one property-list dictionary at
// "~/Library/Logs/Vorlund/Settings.plist", written by the tools that set a run up and read, afresh
// on every call, by every process of the run.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "vorlund/foundation/value.h"

// The preferences file with the home folder expanded ($HOME).
std::string VLGetTestSettingsFilePath();

// A new dictionary read from the preferences file; every call reads the disk. When the file is
// missing, unreadable or not a dictionary, logs at level 16, category "VLCore", "Empty Preferences
// at '<path>', returning empty dictionary" and returns an empty dictionary. Never throws.
vl::Dictionary VLGetPreferences();

// Stores value under key in the preferences file (a none value removes the key). While the file
// exists and is not writable, logs at level 16, category "Framework", "Unable to write <path>,
// waiting for 1 second" and waits a second (scaled; no limit). Raises the file's immutable flag
// around the read-modify-write, then writes the file atomically. Failures to set the flag or to
// write are ignored.
void VLSavePreference(const vl::Value& value, const std::string& key);
// VLSavePreference for every key of dictionary that the preferences do not have yet; existing keys
// are never overwritten.
void VLSaveBundlePreferences(const vl::Dictionary& dictionary);

// The bundles' default settings for a stress type and subtype (a new bundle manager's
// getDefaultSettingsForType), or none.
std::optional<vl::Dictionary> VLGetDefaultSettingsForTest(const std::string& type,
                                                          const std::string& subtype);
// The bundles' primary processes for a subtype (a new bundle manager's primaryProcesses): process
// name -> the bundle's value.
vl::Dictionary VLGetBundlePrimaryProcesses(const std::string& subtype);

// Reading a configuration dictionary (the preferences or any dictionary of the same shape): its
// "Environments" map an environment name to an array of test case entries, or to a dictionary whose
// "TestCaseArray" is that array; an entry is a test case name or a dictionary with "Name".
namespace VLConfig {
// The environment names, or none when there is no "Environments" dictionary.
std::optional<std::set<std::string>> getEnvironmentNames(const vl::Dictionary& config);
// The test case entries of one environment (all of them when name is none), each once. From an
// array every element is taken as it is; from a "TestCaseArray" strings and the "Name" of
// dictionaries (a dictionary without one is logged at level 16, category "NSDictionary+VLConfig",
// and skipped).
vl::Array getTestCaseNamesForEnvironment(const vl::Dictionary& config,
                                         const std::optional<std::string>& name);
vl::Array getTestCaseNames(const vl::Dictionary& config);
// Whether any environment lists name, as a string or as a dictionary's "Name".
bool hasTestCaseName(const vl::Dictionary& config, const std::string& name);
}  // namespace VLConfig
