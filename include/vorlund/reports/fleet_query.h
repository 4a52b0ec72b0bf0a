// SQL across a fleet: one read-only query run on every device's timeline database at once, the rows
// of all devices in one table with the device first, and that table as text, CSV or JSON. The
// timelines are opened read-only and the query must be one statement that changes nothing, so a
// question asked of a fleet folder never alters what the devices recorded.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl {

// The error domain of refused queries. Codes: kFleetQueryNoDatabases, kFleetQueryNotOneStatement,
// kFleetQueryNotReadOnly.
inline constexpr const char* kFleetQueryErrorDomain = "VLReports";
inline constexpr int kFleetQueryNoDatabases = 1;
inline constexpr int kFleetQueryNotOneStatement = 2;
inline constexpr int kFleetQueryNotReadOnly = 3;

// The name of the column that says which device a row came from.
inline constexpr const char* kFleetQueryDeviceColumn = "device";

// How long a query waits (nominal seconds, through the time scale) for a device that is writing
// its timeline at that moment before that database is reported as failed.
inline constexpr double kFleetQueryBusySeconds = 5.0;

// The timeline databases of a fleet folder: the "*.db" files of dir/Databases when that folder
// exists, else those of dir itself; sorted by file name. Empty when there are none or dir cannot be
// listed.
std::vector<std::string> fleetTimelinePaths(const std::string& dir);

// A database that gave no rows: why, in SQLite's words ("no such table: TestCases", "file is not a
// database", "unable to open database file"), or that its columns differ from the other devices'.
struct FleetQueryFailure {
  std::string path;
  std::string message;
};

struct FleetQueryResult {
  // "device", then the query's own columns (as the first database that answered names them).
  std::vector<std::string> columns;
  // Device by device in the order of the databases, each device's rows in the query's order.
  // Values are none (NULL), int64 or double numbers, strings or data.
  std::vector<std::vector<Value>> rows;
  std::vector<FleetQueryFailure> failures;
};

// Runs sql on every database of paths, each opened read-only with "PRAGMA query_only" set. The
// device of a database is its Config table's "SerialNumber", else its file name without ".db".
// Refused, nullopt with error (kFleetQueryErrorDomain), before any row is read when paths is empty,
// sql holds no statement or more than one, or the statement would write (sqlite3_stmt_readonly);
// a database that cannot be opened, lacks a table the query names, or fails while stepping is a
// failure of the result and the others still answer.
std::optional<FleetQueryResult> queryTimelines(const std::vector<std::string>& paths,
                                               const std::string& sql, Error* error = nullptr);
// queryTimelines over fleetTimelinePaths(dir).
std::optional<FleetQueryResult> queryFleet(const std::string& dir, const std::string& sql,
                                           Error* error = nullptr);

// An aligned table for a terminal: a header, a rule, one line per row; numbers right-aligned, NULL
// as "NULL", line breaks inside a value shown as "\n".
std::string fleetQueryTable(const FleetQueryResult& result);
// RFC 4180: a header record, CRLF line ends, fields quoted when they hold a comma, a quote or a
// line break (quotes doubled); NULL as an empty field, data as base64.
std::string fleetQueryCsv(const FleetQueryResult& result);
// An array of objects, one per row, keyed by column name in column order: numbers as numbers, NULL
// as null, data as base64 text.
nlohmann::ordered_json fleetQueryJson(const FleetQueryResult& result);

}  // namespace vl
