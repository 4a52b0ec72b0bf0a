// The one way the library records its own failures and the crashes it finds: each function makes
// a new VLIssue with the time now and adds it to the current results (VLResults::currentResults()).
#pragma once

#include <string>

// Process `process`, type "Crash", primaryProcess true.
void VLAddCrashToResults(const std::string& process, const std::string& reason);
// Process "Vorlund", type "Failure", primaryProcess false.
void VLAddFailureToResults(const std::string& reason);
// Process "Vorlund", type "Statistic", primaryProcess false.
void VLAddStatisticToResults(const std::string& reason);
