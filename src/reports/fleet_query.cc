#include "vorlund/reports/fleet_query.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

#include "reports/export_values.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/reports/fleet.h"
#include "vorlund/results/sqlite/database.h"

namespace vl {
namespace {

Error refusal(int code, std::string reason) {
  return Error::withDescription(kFleetQueryErrorDomain, code, std::move(reason));
}

// One device's timeline, open read-only, with the query compiled on it.
struct DeviceQuery {
  std::string path;
  std::string device;
  std::unique_ptr<sqlite::Database> db;
  std::optional<sqlite::Statement> statement;
};

std::string deviceName(sqlite::Database& db, const std::string& path) {
  std::string serial = timelineSerialNumber(db);
  if (!serial.empty()) return serial;
  std::string name = paths::lastComponent(path);
  return name.ends_with(".db") ? name.substr(0, name.size() - 3) : name;
}

// Whether text after the first statement holds another one. Only blanks, comments and semicolons
// may follow; anything else, even text that does not compile, counts as a second statement.
bool holdsMoreStatements(sqlite3* db, std::string_view tail) {
  while (!tail.empty()) {
    sqlite3_stmt* raw = nullptr;
    const char* rest = nullptr;
    int rc = sqlite3_prepare_v2(db, tail.data(), static_cast<int>(tail.size()), &raw, &rest);
    sqlite::ScopedStmt next(raw);
    if (rc != SQLITE_OK || next) return true;
    if (rest == nullptr || rest == tail.data()) return false;
    tail.remove_prefix(static_cast<size_t>(rest - tail.data()));
  }
  return false;
}

// Whether sql holds nothing but blanks, comments and semicolons.
bool isBlank(const std::string& sql) {
  sqlite::Database scratch(":memory:");
  return scratch.open() && !holdsMoreStatements(scratch.handle(), sql);
}

// Opens and compiles the query on one database. On failure says why in `why`; refusals of the
// query itself (a write, a second statement) go to `refused`.
std::optional<DeviceQuery> prepareOn(const std::string& path, const std::string& sql,
                                     std::string* why, std::optional<Error>* refused) {
  DeviceQuery q{path, {}, std::make_unique<sqlite::Database>(path), std::nullopt};
  q.db->setBusyTimeout(
      std::chrono::duration_cast<std::chrono::milliseconds>(time::scaled(kFleetQueryBusySeconds)));
  Error error;
  // Reading the schema makes SQLite look at the file, which opening alone does not: a file that
  // is no database fails here rather than answering a query that reads no table.
  if (!q.db->open(sqlite::kOpenReadOnly, &error) ||
      !q.db->executeStatements("PRAGMA query_only=1; SELECT count(*) FROM sqlite_master", &error)) {
    *why = error.localizedDescription();
    return std::nullopt;
  }
  q.device = deviceName(*q.db, path);
  q.statement = sqlite::Statement::prepare(q.db->handle(), sql, &error);
  if (!q.statement) {
    *why = error.localizedDescription();
    return std::nullopt;
  }
  std::string compiled = q.statement->sql();
  if (holdsMoreStatements(q.db->handle(), std::string_view(sql).substr(compiled.size()))) {
    *refused = refusal(kFleetQueryNotOneStatement,
                       "the query holds more than one statement; give exactly one");
  } else if (!sqlite3_stmt_readonly(q.statement->handle())) {
    *refused = refusal(kFleetQueryNotReadOnly,
                       "the query would change the timelines; only read-only statements are run");
  }
  return q;
}

std::vector<std::string> columnsOf(const sqlite::Statement& statement) {
  std::vector<std::string> columns;
  for (int i = 0; i < statement.columnCount(); ++i) columns.push_back(statement.columnName(i));
  return columns;
}

// A value as one line of text: numbers in their shortest exact form, data as base64.
std::string cellText(const Value& value) {
  if (const Number* n = value.asNumber()) {
    if (!n->isFloatingPoint()) return std::to_string(n->int64Value());
    return reports::shortestNumber(n->doubleValue());
  }
  if (value.isData()) return reports::exportJson(value).get<std::string>();
  return value.stringOr("");
}

// Characters on screen of UTF-8 text: every byte that does not continue a sequence.
size_t displayWidth(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string oneLine(std::string text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += ' ';
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> fleetTimelinePaths(const std::string& dir) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path folder = fs::is_directory(fs::path(dir) / "Databases", ec) ? fs::path(dir) / "Databases"
                                                                      : fs::path(dir);
  std::vector<std::string> found;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() == ".db" && it->is_regular_file(ec)) {
      found.push_back(it->path().string());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::optional<FleetQueryResult> queryTimelines(const std::vector<std::string>& paths,
                                               const std::string& sql, Error* error) {
  if (paths.empty()) {
    setError(error, refusal(kFleetQueryNoDatabases, "no timeline databases (*.db) to query"));
    return std::nullopt;
  }
  if (isBlank(sql)) {
    setError(error, refusal(kFleetQueryNotOneStatement, "the query holds no statement"));
    return std::nullopt;
  }
  FleetQueryResult result;
  std::vector<DeviceQuery> queries;
  // Every database compiles the query before any runs it: a write refused on one device is refused
  // on all, and nothing has been read by then.
  for (const std::string& path : paths) {
    std::string why;
    std::optional<Error> refused;
    std::optional<DeviceQuery> query = prepareOn(path, sql, &why, &refused);
    if (refused) {
      setError(error, *refused);
      return std::nullopt;
    }
    if (!query) {
      result.failures.push_back({path, why});
      continue;
    }
    queries.push_back(std::move(*query));
  }

  std::optional<std::vector<std::string>> columns;
  for (DeviceQuery& query : queries) {
    std::vector<std::string> own = columnsOf(*query.statement);
    if (!columns) {
      columns = own;
    } else if (own != *columns) {
      result.failures.push_back({query.path, "its columns differ from the other devices'"});
      continue;
    }
    std::vector<std::vector<Value>> rows;
    Error stepError;
    sqlite::StepResult step;
    while ((step = query.statement->step(&stepError)) == sqlite::StepResult::kRow) {
      std::vector<Value> row{Value(query.device)};
      for (int i = 0; i < query.statement->columnCount(); ++i) {
        row.push_back(query.statement->columnValue(i));
      }
      rows.push_back(std::move(row));
    }
    query.statement->reset();
    if (step == sqlite::StepResult::kError) {
      result.failures.push_back({query.path, stepError.localizedDescription()});
      continue;
    }
    std::move(rows.begin(), rows.end(), std::back_inserter(result.rows));
  }
  result.columns.push_back(kFleetQueryDeviceColumn);
  if (columns) result.columns.insert(result.columns.end(), columns->begin(), columns->end());
  return result;
}

std::optional<FleetQueryResult> queryFleet(const std::string& dir, const std::string& sql,
                                           Error* error) {
  return queryTimelines(fleetTimelinePaths(dir), sql, error);
}

std::string fleetQueryTable(const FleetQueryResult& result) {
  const size_t n = result.columns.size();
  std::vector<size_t> widths(n);
  std::vector<bool> numeric(n, true);
  std::vector<std::vector<std::string>> cells;
  for (size_t c = 0; c < n; ++c) widths[c] = displayWidth(result.columns[c]);
  for (const auto& row : result.rows) {
    std::vector<std::string> line;
    for (size_t c = 0; c < n && c < row.size(); ++c) {
      line.push_back(row[c].isNone() ? "NULL" : oneLine(cellText(row[c])));
      widths[c] = std::max(widths[c], displayWidth(line.back()));
      if (!row[c].isNone() && !row[c].isNumber()) numeric[c] = false;
    }
    cells.push_back(std::move(line));
  }
  auto pad = [&](const std::string& text, size_t c, bool right) {
    std::string fill(widths[c] - displayWidth(text), ' ');
    return right ? fill + text : text + fill;
  };
  std::string out;
  auto emit = [&](const std::vector<std::string>& line, bool header) {
    std::string text;
    for (size_t c = 0; c < line.size(); ++c) {
      if (c > 0) text += "  ";
      text += pad(line[c], c, !header && numeric[c]);
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out += text + "\n";
  };
  emit(result.columns, true);
  std::vector<std::string> rule;
  for (size_t c = 0; c < n; ++c) rule.push_back(std::string(widths[c], '-'));
  emit(rule, true);
  for (const auto& line : cells) emit(line, false);
  return out;
}

std::string fleetQueryCsv(const FleetQueryResult& result) {
  auto field = [](const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) {
      if (c == '"') quoted += '"';
      quoted += c;
    }
    return quoted + "\"";
  };
  std::string out;
  auto record = [&](const std::vector<std::string>& fields) {
    for (size_t i = 0; i < fields.size(); ++i) {
      if (i > 0) out += ',';
      out += field(fields[i]);
    }
    out += "\r\n";
  };
  record(result.columns);
  for (const auto& row : result.rows) {
    std::vector<std::string> fields;
    for (const Value& value : row) fields.push_back(value.isNone() ? "" : cellText(value));
    record(fields);
  }
  return out;
}

nlohmann::ordered_json fleetQueryJson(const FleetQueryResult& result) {
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const auto& row : result.rows) {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (size_t c = 0; c < row.size() && c < result.columns.size(); ++c) {
      object[result.columns[c]] = reports::exportJson(row[c]);
    }
    rows.push_back(std::move(object));
  }
  return rows;
}

}  // namespace vl
