// One compiled SQLite statement, owned: parameters bound by index or name, stepping, column readers
// and reset. Part of the program's own thin layer over the SQLite C API (results/sqlite/), used by
// the timeline database. Nothing here throws; failures are return values and vl::Error.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vl::sqlite {

// The domain of every error this layer reports; the code is SQLite's extended result code and the
// description SQLite's message.
inline constexpr const char* kErrorDomain = "VLSQLiteErrorDomain";

// An error of this layer's domain.
Error makeError(int code, std::string message);

// Finalizes a statement handle.
struct StmtFinalizer {
  void operator()(sqlite3_stmt* stmt) const noexcept;
};
using ScopedStmt = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

enum class StepResult {
  kRow,    // a row is ready for the column readers
  kDone,   // the statement ran to completion
  kError,  // it failed; the error says why
};

class Statement {
 public:
  // Compiles the first statement of sql on db. None, with error, when db is null, sql is empty or
  // does not compile.
  static std::optional<Statement> prepare(sqlite3* db, std::string_view sql,
                                          Error* error = nullptr);

  Statement(Statement&&) noexcept = default;
  Statement& operator=(Statement&&) noexcept = default;

  sqlite3_stmt* handle() const { return stmt_.get(); }
  // The SQL text the statement was compiled from.
  std::string sql() const;
  // The database connection the statement belongs to.
  sqlite3* database() const;

  // Number of parameters; the index of a named parameter (":name", "@name", "$name", with its
  // prefix), or 0 when there is none of that name.
  int parameterCount() const;
  int parameterIndex(std::string_view name) const;

  // Binding by 1-based index or by name. Each returns false, with error, for an unknown index or
  // name; a bound value stays until it is rebound or clearBindings() is called.
  bool bindInt64(int index, int64_t value, Error* error = nullptr);
  bool bindDouble(int index, double value, Error* error = nullptr);
  bool bindText(int index, std::string_view value, Error* error = nullptr);
  bool bindBlob(int index, const Data& value, Error* error = nullptr);
  bool bindNull(int index, Error* error = nullptr);
  // A value of any kind: none as NULL, a floating-point number as a double, other numbers as
  // integers (an unsigned one beyond the int64 range as a double), data as a blob, a date as its
  // date string, every other value as the text of its description.
  bool bind(int index, const Value& value, Error* error = nullptr);
  bool bindInt64(std::string_view name, int64_t value, Error* error = nullptr);
  bool bindDouble(std::string_view name, double value, Error* error = nullptr);
  bool bindText(std::string_view name, std::string_view value, Error* error = nullptr);
  bool bindNull(std::string_view name, Error* error = nullptr);
  bool bind(std::string_view name, const Value& value, Error* error = nullptr);
  // Binds values to parameters 1..n. False, with error, when n differs from parameterCount().
  bool bindAll(const std::vector<Value>& values, Error* error = nullptr);
  void clearBindings();

  // Runs the statement to its next row. Busy waits follow the connection's busy timeout.
  StepResult step(Error* error = nullptr);
  // Steps until done, for statements that return no rows wanted. False, with error, on failure.
  bool run(Error* error = nullptr);
  // Makes the statement ready to run again and releases the locks it holds; bindings are kept.
  void reset();

  // Columns of the current row. Indexes are 0-based; an index out of range reads as NULL.
  int columnCount() const;
  std::string columnName(int index) const;
  // The index of a column by name (case-insensitive, as SQL names are), or -1.
  int columnIndex(std::string_view name) const;
  bool columnIsNull(int index) const;
  int64_t columnInt64(int index) const;
  double columnDouble(int index) const;
  std::string columnText(int index) const;
  // The column as a value: NULL as none, integers as int64 numbers, reals as doubles, text as a
  // string and blobs as data.
  Value columnValue(int index) const;

 private:
  explicit Statement(sqlite3_stmt* stmt) : stmt_(stmt) {}
  bool checkBind(int rc, int index, Error* error);

  ScopedStmt stmt_;
};

}  // namespace vl::sqlite
