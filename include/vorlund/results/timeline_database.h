// The timeline of a stress run: an SQLite database in which every result added to the run becomes
// one or more TestCases rows, every accepted issue one Issues row, and the Config table mirrors the
// run's summary. The results aggregate owns one and calls it; other tools read the file.
//
// The file is opened and closed around each use. It is in write-ahead-log mode with
// synchronous=FULL: every result is written in one transaction that is on disk (in the log) before
// the call returns, and readers through SQLite see it at once. The log is kept between uses; it is
// copied back into the database file and emptied when it reaches kTimelineCheckpointPages and at
// every rewrite of the Config table (each save of the results file), so the file alone, copied
// without its "-wal", holds everything up to the last save. A reader in another process that holds
// the log at that moment only delays the emptying to a later commit.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/value.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/sqlite/database.h"
#include "vorlund/results/test_case_result.h"

// The names of the exceptions that opening raises.
inline constexpr const char* kVLDBInitializationFailedException = "DBInitializationFailed";
inline constexpr const char* kVLTetherResultsException = "VLTetherResultsException";
// The process that serves the host-pairing link; it must never write a timeline.
inline constexpr const char* kVLTetherProcessName = "vorlund_tether";

namespace vl {

// Column widths of the tables, as the CREATE statements declare them.
inline constexpr int kTimelineNameWidth = 250;
inline constexpr int kTimelineDateWidth = 50;
inline constexpr int kTimelineBucketWidth = 1000;
inline constexpr int kTimelineReasonWidth = 1000;
inline constexpr int kTimelineHistoryWidth = 1000000;
// value_number of a row that carries no number: the largest signed 32-bit value.
inline constexpr int64_t kTimelineNoNumber = 2147483647;
// The longest history text an Issues row stores; a longer one is stored empty.
inline constexpr size_t kTimelineMaximumHistoryLength = 1000000;
// The size of the log, in pages, at which a commit empties it into the database file. Every open
// reads the whole log, every emptying costs a sync of the database file: about 16 results apart
// keeps both small.
inline constexpr int kTimelineCheckpointPages = 32;
// How long a write waits for another process that holds the database lock.
inline constexpr double kTimelineBusyTimeoutSeconds = 10.0;

// The exact statements that create the tables.
std::string timelineCreateTestCasesStatement();
std::string timelineCreateIssuesStatement();
std::string timelineCreateConfigStatement();

}  // namespace vl

// The system's timeline database object: the operations the results aggregate calls.
class VLTimelineDatabase {
 public:
  // A timeline at path; nothing is opened or created until databaseInit() or the first write.
  explicit VLTimelineDatabase(std::string path);
  ~VLTimelineDatabase();
  VLTimelineDatabase(const VLTimelineDatabase&) = delete;
  VLTimelineDatabase& operator=(const VLTimelineDatabase&) = delete;

  // Points the timeline at path and opens or creates it there, creating missing tables. Raises
  // VLException "VLTetherResultsException" in the "vorlund_tether" process, and
  // "DBInitializationFailed" when the file cannot be opened or its tables cannot be verified
  // (a corrupt file, a file that is not a database). Failed CREATE statements are only logged.
  void databaseInitWithPath(const std::string& path);
  // The same on path().
  void databaseInit();
  // True once databaseInit succeeded.
  bool isInitialized() const;
  const std::string& path() const { return path_; }

  // True when the tables Config, Issues and TestCases all exist; false when they do not, when the
  // file cannot be read, or before databaseInit(). Logs "hasConfig = %d" and its siblings.
  bool verifyDBTables();

  // Writes the rows of one result (one per tag; a default row when there are none, unless the
  // result is an "Average" with metrics; one per metric of an "Average"), all with one new UUID,
  // in one transaction committed before it returns. A metric that is NaN or infinite is a number
  // row whose value_number is NULL (logged at error level with the metric and its value).
  // Initialises the database first when needed, and so may raise the exceptions of databaseInit().
  // Returns whether the rows were committed; a failure is logged and nothing of the result stays.
  bool saveResultToDatabase(const VLTestCaseResult& result, int64_t iteration);

  // True when no Issues row has the issue's reason (without single quotes), time and process.
  // Also true when the lookup itself fails (logged), so that an issue is never lost to it.
  // Initialises the database first when needed, and so may raise as databaseInit() does; so may
  // the two writers below.
  bool isNewIssue(const VLIssue& issue);

  // Inserts the issue's row. history is the run's recent history of test case definitions as
  // JSON-safe dictionaries; it is stored as JSON text, or as an empty text when it cannot be made
  // or is longer than 1000000 characters (both logged). Returns whether the row was written.
  bool saveIssueToDatabase(const VLIssue& issue, const vl::Array& history);
  // The same with the history already as JSON text (stored empty when not UTF-8 or too long).
  bool saveIssueToDatabase(const VLIssue& issue, std::string historyJSON);

  // The same for records held by reference; a null record writes nothing (isNewIssue: false).
  bool saveResultToDatabase(const std::shared_ptr<VLTestCaseResult>& result, int64_t iteration) {
    return result && saveResultToDatabase(*result, iteration);
  }
  bool isNewIssue(const std::shared_ptr<VLIssue>& issue) { return issue && isNewIssue(*issue); }
  bool saveIssueToDatabase(const std::shared_ptr<VLIssue>& issue, const vl::Array& history) {
    return issue && saveIssueToDatabase(*issue, history);
  }
  bool saveIssueToDatabase(const std::shared_ptr<VLIssue>& issue, std::string historyJSON) {
    return issue && saveIssueToDatabase(*issue, std::move(historyJSON));
  }

  // Replaces the Config table with the summary: strings and numbers under their keys, dates as
  // date strings, and the string, number and date entries of a nested dictionary under their own
  // keys (so "SerialNumber" of "Hardware Info" is a row); arrays are left out. Every key is one
  // row: a top-level entry wins over a nested one of the same key, else the first nested one.
  // Then folds the log back into the database file. One
  // transaction: a reader sees the old table or the new one. Returns whether it was committed.
  bool saveConfigToDatabase(const vl::Dictionary& summary);

 private:
  void initializeLocked(const std::string& path);
  bool verifyTablesLocked();
  // Opens the connection for one use (initialising first when needed); false, logged, when it
  // cannot be opened.
  bool openLocked();
  bool insertIssueLocked(const VLIssue& issue, const std::string& history);

  std::string path_;
  // The database object's lock: every use of the connection, so that the rows of one result are
  // never interleaved with another's.
  mutable std::mutex mutex_;
  std::unique_ptr<vl::sqlite::Database> db_;
  bool initialized_ = false;
};
