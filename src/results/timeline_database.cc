#include "vorlund/results/timeline_database.h"

#include <chrono>
#include <cmath>
#include <set>

#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/sqlite/statement.h"
#include "vorlund/results/sqlite/transaction.h"
#include "vorlund/results/test_case_statistic.h"

// The class is the system's own (global); the types it works with are the library's.
using vl::Array;
using vl::Date;
using vl::dateString;
using vl::Dictionary;
using vl::Error;
using vl::format;
using vl::Number;
using vl::Uuid;
using vl::Value;
namespace json = vl::json;
namespace process = vl::process;
namespace sqlite = vl::sqlite;
using vl::kTimelineBusyTimeoutSeconds;
using vl::kTimelineMaximumHistoryLength;
using vl::kTimelineNoNumber;
using vl::timelineCreateConfigStatement;
using vl::timelineCreateIssuesStatement;
using vl::timelineCreateTestCasesStatement;

namespace {

constexpr const char* kCategory = "Results";

constexpr const char* kInsertTestCaseRow =
    "INSERT INTO TestCases(test_case_name, test_case_iteration, metric_name, is_number, "
    "test_case_type, start_time, end_time, result, bucket, value_number, value_string, uuid) "
    "VALUES (%@,%@,%@,%@,%@,%@,%@,%@,%@,%@,%@,%@)";
constexpr const char* kInsertIssueRow =
    "INSERT INTO Issues(reason,process,type,is_primary_process,is_wireless_process,time,history) "
    "VALUES (%@,%@,%@,%@,%@,%@,%@);";
constexpr const char* kSelectIssue =
    "SELECT * from Issues WHERE reason='%@' AND time='%@' AND process='%@'";
constexpr const char* kSelectTables = "SELECT name FROM sqlite_master WHERE type='table'";
constexpr const char* kDeleteConfig = "DELETE from Config;";
constexpr const char* kInsertConfigString = "INSERT into Config(key,value) VALUES('%@','%@');";
constexpr const char* kInsertConfigNumber = "INSERT into Config(key,value) VALUES('%@',%@);";

// Parameter positions of kInsertTestCaseRow.
enum RowColumn : int {
  kColumnName = 1,
  kColumnIteration,
  kColumnMetricName,
  kColumnIsNumber,
  kColumnType,
  kColumnStart,
  kColumnEnd,
  kColumnResult,
  kColumnBucket,
  kColumnValueNumber,
  kColumnValueString,
  kColumnUuid,
};

// Each use opens the file, and this closes it again on every way out.
class CloseOnExit {
 public:
  explicit CloseOnExit(sqlite::Database& db) : db_(db) {}
  ~CloseOnExit() { db_.close(); }
  CloseOnExit(const CloseOnExit&) = delete;
  CloseOnExit& operator=(const CloseOnExit&) = delete;

 private:
  sqlite::Database& db_;
};

[[noreturn]] void raiseInitializationFailed(const std::string& reason) {
  throw VLException(kVLDBInitializationFailedException, reason);
}

// A date string of the shared format; a missing date reads as now, as everywhere in the results.
std::string dateText(const std::optional<Date>& date) {
  return dateString(date.value_or(Date::now()));
}

std::string withoutSingleQuotes(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c != '\'') out += c;
  }
  return out;
}

// Text for a quoted SQL literal: single quotes doubled.
std::string quoted(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out;
}

// Number of code points of valid UTF-8, or none when the text is not valid UTF-8.
std::optional<size_t> utf8Length(std::string_view text) {
  size_t count = 0;
  for (size_t i = 0; i < text.size(); ++count) {
    auto lead = static_cast<unsigned char>(text[i]);
    size_t extra = lead < 0x80           ? 0
                   : (lead >> 5) == 0x6  ? 1
                   : (lead >> 4) == 0xE  ? 2
                   : (lead >> 3) == 0x1E ? 3
                                         : 4;
    if (extra == 4 || text.size() - i <= extra) return std::nullopt;
    for (size_t k = 1; k <= extra; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) >> 6) != 0x2) return std::nullopt;
    }
    i += extra + 1;
  }
  return count;
}

}  // namespace

namespace vl {

std::string timelineCreateTestCasesStatement() {
  return format(
      "CREATE TABLE TestCases(id INTEGER PRIMARY KEY, test_case_name VARCHAR(%d), "
      "test_case_iteration INTEGER, metric_name VARCHAR(%d), is_number BOOLEAN, test_case_type "
      "VARCHAR(%d), start_time VARCHAR(%d), end_time VARCHAR(%d), result INTEGER, bucket "
      "VARCHAR(%d), value_number DOUBLE PRECISION, value_string VARCHAR(%d), uuid VARCHAR(40));",
      kTimelineNameWidth, kTimelineNameWidth, kTimelineNameWidth, kTimelineDateWidth,
      kTimelineDateWidth, kTimelineBucketWidth, kTimelineNameWidth);
}

std::string timelineCreateIssuesStatement() {
  return format(
      "CREATE TABLE Issues(id INTEGER PRIMARY KEY, reason VARCHAR(%d), process VARCHAR(%d), type "
      "VARCHAR(%d), is_primary_process BOOLEAN, is_wireless_process BOOLEAN, time VARCHAR(%d), "
      "history VARCHAR(%d));",
      kTimelineReasonWidth, kTimelineNameWidth, kTimelineNameWidth, kTimelineDateWidth,
      kTimelineHistoryWidth);
}

std::string timelineCreateConfigStatement() {
  return "CREATE TABLE Config(id INTEGER PRIMARY KEY, key VARCHAR(250), value VARCHAR(250))";
}

}  // namespace vl

VLTimelineDatabase::VLTimelineDatabase(std::string path) : path_(std::move(path)) {}

VLTimelineDatabase::~VLTimelineDatabase() = default;

void VLTimelineDatabase::databaseInitWithPath(const std::string& path) {
  std::lock_guard lock(mutex_);
  initializeLocked(path);
}

void VLTimelineDatabase::databaseInit() {
  std::lock_guard lock(mutex_);
  initializeLocked(path_);
}

bool VLTimelineDatabase::isInitialized() const {
  std::lock_guard lock(mutex_);
  return initialized_;
}

void VLTimelineDatabase::initializeLocked(const std::string& path) {
  if (process::name() == kVLTetherProcessName) {
    throw VLException(kVLTetherResultsException,
                      "Attempted to create a database object from the tether process");
  }
  initialized_ = false;
  path_ = path;
  db_ = std::make_unique<sqlite::Database>(path_);
  db_->setBusyTimeout(std::chrono::duration_cast<std::chrono::milliseconds>(
      vl::time::scaled(kTimelineBusyTimeoutSeconds)));
  // A commit is then one synced append to the log: no journal to create and delete, and no
  // checkpoint at close. The log is emptied once it holds kTimelineCheckpointPages pages, so that
  // each open reads little of it (see saveConfigToDatabase too).
  db_->setPersistentWal(true);
  db_->setCheckpointOnClose(false);
  db_->setLogLimit(vl::kTimelineCheckpointPages);
  VLLog(VLLogLevelInfo, kCategory, "Database object is %@", db_->description());

  if (!verifyTablesLocked()) {
    if (!db_->open()) {
      raiseInitializationFailed(
          format("Failed to open database after creating...%@", db_->lastErrorMessage()));
    }
    if (!db_->executeStatements(timelineCreateTestCasesStatement())) {
      VLLog(VLLogLevelError, kCategory,
            "Failed to execute the test case initialization statement...%@",
            db_->lastErrorMessage());
    }
    if (!db_->executeStatements(timelineCreateIssuesStatement())) {
      // The trailing comma is part of the line.
      VLLog(VLLogLevelError, kCategory,
            "Failed to execute the issues initialization statement...%@,", db_->lastErrorMessage());
    }
    if (!db_->executeStatements(timelineCreateConfigStatement())) {
      VLLog(VLLogLevelError, kCategory,
            "Failed to execute the config initialization statement...%@", db_->lastErrorMessage());
    }
    db_->close();
  }

  // A second connection, opened as a test and closed again.
  {
    sqlite::Database probe(path_);
    if (!probe.open(sqlite::kOpenReadWrite)) {
      raiseInitializationFailed(format("Failed to open data base at %@", path_));
    }
  }

  if (!verifyTablesLocked())
    raiseInitializationFailed(format("Failed to verify tables for %@", path_));
  // Write-ahead logging makes a commit one synced write instead of a synced journal, a synced
  // database and a deleted journal; the mode stays with the file.
  Error error;
  if (!db_->open() || !db_->executeStatements("PRAGMA journal_mode=WAL", &error)) {
    VLLog(VLLogLevelError, kCategory, "Failed to switch the timeline %@ to WAL...%@", path_, error);
  }
  db_->close();
  initialized_ = true;
}

bool VLTimelineDatabase::verifyDBTables() {
  std::lock_guard lock(mutex_);
  return verifyTablesLocked();
}

bool VLTimelineDatabase::verifyTablesLocked() {
  if (!db_) return false;
  if (!db_->open()) return false;
  bool hasConfig = false;
  bool hasIssues = false;
  bool hasTestCases = false;
  if (auto rows = db_->executeQuery(kSelectTables)) {
    while (rows->next()) {
      std::string name = rows->stringForColumn("name");
      if (name == "Config") hasConfig = true;
      if (name == "Issues") hasIssues = true;
      if (name == "TestCases") hasTestCases = true;
    }
  }
  VLLog(VLLogLevelInfo, kCategory, "hasConfig = %d", hasConfig);
  VLLog(VLLogLevelInfo, kCategory, "hasIssues = %d", hasIssues);
  VLLog(VLLogLevelInfo, kCategory, "hasTestCases = %d", hasTestCases);
  db_->close();
  return hasConfig && hasIssues && hasTestCases;
}

bool VLTimelineDatabase::openLocked() {
  if (!initialized_) initializeLocked(path_);
  Error error;
  // A setting of the connection, so every open makes it: a commit is on disk before the call that
  // wrote it returns.
  if (db_->open(sqlite::kOpenReadWrite | sqlite::kOpenCreate, &error) &&
      db_->executeStatements("PRAGMA synchronous=FULL", &error))
    return true;
  VLLog(VLLogLevelError, kCategory, "Failed to open the timeline at %@: %@", path_, error);
  db_->close();
  return false;
}

bool VLTimelineDatabase::saveResultToDatabase(const VLTestCaseResult& result, int64_t iteration) {
  VLLog(VLLogLevelDebug, kCategory, "Waiting for db lock");
  std::lock_guard lock(mutex_);
  if (!openLocked()) return false;
  CloseOnExit closer(*db_);

  const Dictionary tags = result.getTags();
  const std::optional<std::string> type = result.type();
  const bool isAverage = type && *type == kVLTestCaseResultTypeAverage;
  const Dictionary metrics = isAverage ? result.getMetrics() : Dictionary();
  const bool passed = result.didPass();

  Error error;
  sqlite::Transaction transaction(*db_, sqlite::TransactionMode::kImmediate, &error);
  auto insert = transaction.isActive() ? db_->cachedStatement(kInsertTestCaseRow, &error) : nullptr;
  if (!insert) {
    VLLog(VLLogLevelError, kCategory, "Failed to write the rows of %@ to the timeline...%@",
          result.name().value_or(""), error);
    return false;
  }

  // The fixed parts stay bound for every row of the result.
  const std::string name = VLTestCaseStatistic::hashForTestCase(result);
  const std::string start = dateText(result.getStartTime());
  const std::string end = dateText(result.getEndTime());
  const std::optional<std::string> bucket =
      passed ? std::optional<std::string>("None") : result.bucket();
  const std::string uuid = Uuid::randomString();
  sqlite::Statement& row = *insert;
  row.bindText(kColumnName, name);
  row.bindInt64(kColumnIteration, iteration);
  type ? row.bindText(kColumnType, *type) : row.bindNull(kColumnType);
  row.bindText(kColumnStart, start);
  row.bindText(kColumnEnd, end);
  row.bindInt64(kColumnResult, passed ? 0 : 1);
  bucket ? row.bindText(kColumnBucket, *bucket) : row.bindNull(kColumnBucket);
  row.bindText(kColumnUuid, uuid);

  bool ok = true;
  auto writeRow = [&](const std::string* metricName, const Value* value, bool asNumber) {
    if (!ok) return;
    metricName ? row.bindText(kColumnMetricName, *metricName) : row.bindNull(kColumnMetricName);
    if (asNumber) {
      row.bindInt64(kColumnIsNumber, 1);
      double number = value->asNumber()->doubleValue();
      if (std::isfinite(number)) {
        row.bindDouble(kColumnValueNumber, number);
      } else {
        // SQLite turns NaN into NULL and infinities into 9e999 text on the way out; NULL keeps
        // the row a number row that averages and sums over the column skip.
        VLLog(VLLogLevelError, kCategory,
              "Metric %@ of %@ is %@, which is not a finite number: stored as NULL", *metricName,
              name, value->description());
        row.bindNull(kColumnValueNumber);
      }
      row.bindText(kColumnValueString, "None");
    } else {
      row.bindInt64(kColumnIsNumber, 0);
      row.bindInt64(kColumnValueNumber, kTimelineNoNumber);
      if (!value) {
        row.bindNull(kColumnValueString);
      } else if (const std::string* text = value->asString()) {
        row.bindText(kColumnValueString, *text);
      } else {
        row.bindText(kColumnValueString, value->description());
      }
    }
    ok = row.run(&error);
    row.reset();
  };

  for (size_t i = 0; i < tags.size(); ++i) {
    auto [key, value] = tags.entry(i);
    writeRow(&key, &value, false);
  }
  if (tags.empty()) {
    VLLog(VLLogLevelNotice, kCategory, "No tags, adding default result row");
    if (!(isAverage && !metrics.empty())) writeRow(nullptr, nullptr, false);
  }
  for (size_t i = 0; i < metrics.size(); ++i) {
    auto [key, value] = metrics.entry(i);
    writeRow(&key, &value, value.isNumber());
  }
  row.clearBindings();

  if (ok) ok = transaction.commit(&error);
  if (!ok) {
    VLLog(VLLogLevelError, kCategory, "Failed to write the rows of %@ to the timeline...%@",
          result.name().value_or(""), error);
  }
  return ok;
}

bool VLTimelineDatabase::isNewIssue(const VLIssue& issue) {
  std::string reason = issue.reason().value_or("");
  if (reason.find('\'') != std::string::npos) {
    VLLog(VLLogLevelDebug, kCategory, "Removing single quotes from %@", reason);
    reason = withoutSingleQuotes(reason);
  }
  // Built as text; the reason has no quotes left, the process has its quotes doubled.
  std::string sql =
      format(kSelectIssue, reason, dateText(issue.time()), quoted(issue.process().value_or("")));

  std::lock_guard lock(mutex_);
  if (!openLocked()) return true;
  CloseOnExit closer(*db_);
  Error error;
  // A one-off text: compiled outside the statement cache.
  auto statement = sqlite::Statement::prepare(db_->handle(), sql, &error);
  if (!statement) {
    VLLog(VLLogLevelError, kCategory, "Failed to look up the issue in the timeline...%@", error);
    return true;
  }
  sqlite::ResultSet rows(std::make_shared<sqlite::Statement>(std::move(*statement)));
  bool found = rows.next(&error);
  if (rows.failed()) {
    VLLog(VLLogLevelError, kCategory, "Failed to look up the issue in the timeline...%@", error);
  }
  return !found;
}

bool VLTimelineDatabase::saveIssueToDatabase(const VLIssue& issue, const Array& history) {
  Error error;
  std::optional<std::string> text = json::serialize(Value(history), false, true, &error);
  if (!text) {
    VLLog(VLLogLevelError, kCategory, "Can not generate JSON from results array. %@", error);
    text = std::string();
  }
  return saveIssueToDatabase(issue, std::move(*text));
}

bool VLTimelineDatabase::saveIssueToDatabase(const VLIssue& issue, std::string historyJSON) {
  std::optional<size_t> length = utf8Length(historyJSON);
  if (!length) {
    VLLog(VLLogLevelError, kCategory, "Unable to save json string for DB....%@",
          "The history is not valid UTF-8 text");
    historyJSON.clear();
  } else if (*length > kTimelineMaximumHistoryLength) {
    VLLog(VLLogLevelError, kCategory,
          "Unable to save historyJSON because it was too long... (%ld > %ld)",
          static_cast<long>(*length), static_cast<long>(kTimelineMaximumHistoryLength));
    historyJSON.clear();
  }
  std::lock_guard lock(mutex_);
  if (!openLocked()) return false;
  CloseOnExit closer(*db_);
  return insertIssueLocked(issue, historyJSON);
}

bool VLTimelineDatabase::insertIssueLocked(const VLIssue& issue, const std::string& history) {
  auto text = [](const std::optional<std::string>& value) {
    return value ? Value(*value) : Value();
  };
  Error error;
  bool ok = db_->executeUpdate(kInsertIssueRow,
                               {text(issue.reason()), text(issue.process()), text(issue.type()),
                                Value(int64_t{issue.primaryProcess() ? 1 : 0}),
                                Value(int64_t{issue.wirelessProcess() ? 1 : 0}),
                                Value(dateText(issue.time())), Value(history)},
                               &error);
  if (!ok) {
    VLLog(VLLogLevelError, kCategory, "Failed to write the issue %@ to the timeline...%@",
          issue.reason().value_or(""), error);
  }
  return ok;
}

bool VLTimelineDatabase::saveConfigToDatabase(const Dictionary& summary) {
  std::lock_guard lock(mutex_);
  if (!openLocked()) return false;
  CloseOnExit closer(*db_);
  Error error;
  sqlite::Transaction transaction(*db_, sqlite::TransactionMode::kImmediate, &error);
  if (!transaction.isActive() || !db_->executeStatements(kDeleteConfig, &error)) {
    VLLog(VLLogLevelError, kCategory, "Failed to rewrite the timeline's Config table...%@", error);
    return false;
  }

  // Each key is one row. A top-level entry wins over a nested one of the same name ("City" is also
  // in "Test Settings"); among nested entries the first wins.
  std::set<std::string> written;
  for (size_t i = 0; i < summary.size(); ++i) {
    auto [key, value] = summary.entry(i);
    if (!value.isDictionary() && !value.isArray()) written.insert(key);
  }
  auto insert = [&](const std::string& key, const Value& value) {
    std::string sql;
    if (const std::string* text = value.asString()) {
      sql = format(kInsertConfigString, quoted(key), quoted(*text));
    } else if (const Date* date = value.asDate()) {
      sql = format(kInsertConfigString, quoted(key), dateString(*date));
    } else if (const Number* number = value.asNumber()) {
      if (std::isfinite(number->doubleValue())) {
        sql = format(kInsertConfigNumber, quoted(key), number->description());
      } else {
        sql = format(kInsertConfigString, quoted(key), number->description());
      }
    } else {
      return false;
    }
    Error failure;
    if (!db_->executeStatements(sql, &failure)) {
      VLLog(VLLogLevelError, kCategory, "Failed to write %@ to the timeline's Config table...%@",
            key, failure);
    }
    return true;
  };

  for (size_t i = 0; i < summary.size(); ++i) {
    auto [key, value] = summary.entry(i);
    if (insert(key, value)) continue;
    // A nested summary ("Hardware Info", "Test Settings", ...) gives its own entries.
    if (const Dictionary* nested = value.asDictionary()) {
      for (size_t j = 0; j < nested->size(); ++j) {
        auto [nestedKey, nestedValue] = nested->entry(j);
        if (written.contains(nestedKey)) continue;
        if (insert(nestedKey, nestedValue)) written.insert(nestedKey);
      }
    }
  }
  if (!transaction.commit(&error)) {
    VLLog(VLLogLevelError, kCategory, "Failed to rewrite the timeline's Config table...%@", error);
    return false;
  }
  // Each save of the results file also makes the database file whole on its own, for tools that
  // copy it without its log.
  if (!db_->checkpointAndEmptyLog(&error)) {
    VLLog(VLLogLevelError, kCategory, "Failed to fold the timeline's log into %@...%@", path_,
          error);
  }
  return true;
}
