#include "vorlund/results/sqlite/statement.h"

#include <sqlite3.h>
#include <strings.h>

#include <limits>

#include "vorlund/foundation/date_string.h"

namespace vl::sqlite {

Error makeError(int code, std::string message) {
  return Error::withDescription(kErrorDomain, code, std::move(message));
}

void StmtFinalizer::operator()(sqlite3_stmt* stmt) const noexcept { sqlite3_finalize(stmt); }

namespace {

Error connectionError(sqlite3* db, int rc) {
  const char* message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
  return makeError(db ? sqlite3_extended_errcode(db) : rc, message ? message : sqlite3_errstr(rc));
}

}  // namespace

std::optional<Statement> Statement::prepare(sqlite3* db, std::string_view sql, Error* error) {
  if (!db) {
    setError(error, makeError(SQLITE_MISUSE, "The database is not open"));
    return std::nullopt;
  }
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt, nullptr);
  if (rc != SQLITE_OK) {
    setError(error, connectionError(db, rc));
    sqlite3_finalize(stmt);
    return std::nullopt;
  }
  if (!stmt) {
    setError(error, makeError(SQLITE_MISUSE, "No statement in the SQL text"));
    return std::nullopt;
  }
  return Statement(stmt);
}

std::string Statement::sql() const {
  const char* text = sqlite3_sql(stmt_.get());
  return text ? text : "";
}

sqlite3* Statement::database() const { return sqlite3_db_handle(stmt_.get()); }

int Statement::parameterCount() const { return sqlite3_bind_parameter_count(stmt_.get()); }

int Statement::parameterIndex(std::string_view name) const {
  return sqlite3_bind_parameter_index(stmt_.get(), std::string(name).c_str());
}

bool Statement::checkBind(int rc, int index, Error* error) {
  if (rc == SQLITE_OK) return true;
  if (rc == SQLITE_RANGE) {
    setError(error, makeError(rc, "No parameter " + std::to_string(index) + " in " + sql()));
  } else {
    setError(error, connectionError(database(), rc));
  }
  return false;
}

bool Statement::bindInt64(int index, int64_t value, Error* error) {
  return checkBind(sqlite3_bind_int64(stmt_.get(), index, value), index, error);
}

bool Statement::bindDouble(int index, double value, Error* error) {
  return checkBind(sqlite3_bind_double(stmt_.get(), index, value), index, error);
}

bool Statement::bindText(int index, std::string_view value, Error* error) {
  return checkBind(sqlite3_bind_text64(stmt_.get(), index, value.data(), value.size(),
                                       SQLITE_TRANSIENT, SQLITE_UTF8),
                   index, error);
}

bool Statement::bindBlob(int index, const Data& value, Error* error) {
  return checkBind(sqlite3_bind_blob64(stmt_.get(), index, value.bytes.data(), value.bytes.size(),
                                       SQLITE_TRANSIENT),
                   index, error);
}

bool Statement::bindNull(int index, Error* error) {
  return checkBind(sqlite3_bind_null(stmt_.get(), index), index, error);
}

bool Statement::bind(int index, const Value& value, Error* error) {
  switch (value.kind()) {
    case ValueKind::None:
      return bindNull(index, error);
    case ValueKind::Number: {
      const Number& n = *value.asNumber();
      if (n.isFloatingPoint()) return bindDouble(index, n.doubleValue(), error);
      if (n.isUnsigned() &&
          n.uint64Value() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return bindDouble(index, n.doubleValue(), error);
      }
      return bindInt64(index, n.int64Value(), error);
    }
    case ValueKind::String:
      return bindText(index, *value.asString(), error);
    case ValueKind::Data:
      return bindBlob(index, *value.asData(), error);
    case ValueKind::Date:
      return bindText(index, dateString(*value.asDate()), error);
    default:
      return bindText(index, value.description(), error);
  }
}

namespace {

// Resolves a parameter name to its index, filling error when there is none.
int indexForName(const Statement& statement, std::string_view name, Error* error) {
  int index = statement.parameterIndex(name);
  if (index == 0) {
    setError(error, makeError(SQLITE_RANGE, "No parameter named " + std::string(name) + " in " +
                                                statement.sql()));
  }
  return index;
}

}  // namespace

bool Statement::bindInt64(std::string_view name, int64_t value, Error* error) {
  int index = indexForName(*this, name, error);
  return index != 0 && bindInt64(index, value, error);
}

bool Statement::bindDouble(std::string_view name, double value, Error* error) {
  int index = indexForName(*this, name, error);
  return index != 0 && bindDouble(index, value, error);
}

bool Statement::bindText(std::string_view name, std::string_view value, Error* error) {
  int index = indexForName(*this, name, error);
  return index != 0 && bindText(index, value, error);
}

bool Statement::bindNull(std::string_view name, Error* error) {
  int index = indexForName(*this, name, error);
  return index != 0 && bindNull(index, error);
}

bool Statement::bind(std::string_view name, const Value& value, Error* error) {
  int index = indexForName(*this, name, error);
  return index != 0 && bind(index, value, error);
}

bool Statement::bindAll(const std::vector<Value>& values, Error* error) {
  if (static_cast<int>(values.size()) != parameterCount()) {
    setError(error,
             makeError(SQLITE_RANGE, "The statement takes " + std::to_string(parameterCount()) +
                                         " parameters but " + std::to_string(values.size()) +
                                         " were given: " + sql()));
    return false;
  }
  for (size_t i = 0; i < values.size(); ++i) {
    if (!bind(static_cast<int>(i + 1), values[i], error)) return false;
  }
  return true;
}

void Statement::clearBindings() { sqlite3_clear_bindings(stmt_.get()); }

StepResult Statement::step(Error* error) {
  int rc = sqlite3_step(stmt_.get());
  if (rc == SQLITE_ROW) return StepResult::kRow;
  if (rc == SQLITE_DONE) return StepResult::kDone;
  setError(error, connectionError(database(), rc));
  return StepResult::kError;
}

bool Statement::run(Error* error) {
  for (;;) {
    switch (step(error)) {
      case StepResult::kRow:
        continue;
      case StepResult::kDone:
        return true;
      case StepResult::kError:
        return false;
    }
  }
}

void Statement::reset() { sqlite3_reset(stmt_.get()); }

int Statement::columnCount() const { return sqlite3_column_count(stmt_.get()); }

std::string Statement::columnName(int index) const {
  const char* name = sqlite3_column_name(stmt_.get(), index);
  return name ? name : "";
}

int Statement::columnIndex(std::string_view name) const {
  int count = columnCount();
  for (int i = 0; i < count; ++i) {
    const char* column = sqlite3_column_name(stmt_.get(), i);
    if (column && std::string_view(column).size() == name.size() &&
        strncasecmp(column, name.data(), name.size()) == 0) {
      return i;
    }
  }
  return -1;
}

bool Statement::columnIsNull(int index) const {
  return index < 0 || index >= columnCount() ||
         sqlite3_column_type(stmt_.get(), index) == SQLITE_NULL;
}

int64_t Statement::columnInt64(int index) const {
  if (index < 0 || index >= columnCount()) return 0;
  return sqlite3_column_int64(stmt_.get(), index);
}

double Statement::columnDouble(int index) const {
  if (index < 0 || index >= columnCount()) return 0;
  return sqlite3_column_double(stmt_.get(), index);
}

std::string Statement::columnText(int index) const {
  if (index < 0 || index >= columnCount()) return "";
  const unsigned char* text = sqlite3_column_text(stmt_.get(), index);
  if (!text) return "";
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(stmt_.get(), index)));
}

Value Statement::columnValue(int index) const {
  if (index < 0 || index >= columnCount()) return Value();
  switch (sqlite3_column_type(stmt_.get(), index)) {
    case SQLITE_INTEGER:
      return Value(static_cast<int64_t>(sqlite3_column_int64(stmt_.get(), index)));
    case SQLITE_FLOAT:
      return Value(sqlite3_column_double(stmt_.get(), index));
    case SQLITE_TEXT:
      return Value(columnText(index));
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(stmt_.get(), index));
      int size = sqlite3_column_bytes(stmt_.get(), index);
      return Value(Data(std::vector<uint8_t>(bytes, bytes + size)));
    }
    default:
      return Value();
  }
}

}  // namespace vl::sqlite
