// The per-user preferences of a stress run: one property-list dictionary at
// "~/Library/Logs/Vorlund/Settings.plist", written by the tools that set a run up and read, afresh
// on every call, by every process of the run.
#pragma once

#include <string>

#include "vorlund/foundation/value.h"

// The preferences file with the home folder expanded ($HOME).
std::string VLGetTestSettingsFilePath();

// A new dictionary read from the preferences file; every call reads the disk. When the file is
// missing, unreadable or not a dictionary, logs at level 16, category "VLCore", "Empty Preferences
// at '<path>', returning empty dictionary" and returns an empty dictionary. Never throws.
vl::Dictionary VLGetPreferences();
