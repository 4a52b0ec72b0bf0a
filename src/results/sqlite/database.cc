#include "vorlund/results/sqlite/database.h"

#include <sqlite3.h>

#include "vorlund/foundation/format.h"

namespace vl::sqlite {

static_assert(kOpenReadOnly == SQLITE_OPEN_READONLY && kOpenReadWrite == SQLITE_OPEN_READWRITE &&
              kOpenCreate == SQLITE_OPEN_CREATE);

// SQLite's own threshold of automatic checkpoints, which a connection starts with.
constexpr int kSqliteDefaultAutocheckpointPages = 1000;

void DbCloser::operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }

std::string bindablePlaceholders(std::string_view sql) {
  std::string out;
  out.reserve(sql.size());
  char quote = 0;  // the quote character of the literal or identifier we are inside, if any
  for (size_t i = 0; i < sql.size(); ++i) {
    char c = sql[i];
    if (quote) {
      if (c == quote) quote = 0;  // a doubled quote closes and reopens, which comes out the same
    } else if (c == '\'' || c == '"' || c == '`') {
      quote = c;
    } else if (c == '%' && i + 1 < sql.size() && sql[i + 1] == '@') {
      out += '?';
      ++i;
      continue;
    }
    out += c;
  }
  return out;
}

Database::Database(std::string path) : path_(std::move(path)) { succeed(); }

Database::~Database() { close(); }

std::string Database::description() const {
  return vl::format("<VLSQLiteDatabase: %@ (%@)>", path_, isOpen() ? "open" : "closed");
}

bool Database::fail(Error error, Error* out) {
  lastError_ = error;
  setError(out, std::move(error));
  return false;
}

bool Database::succeed() {
  lastError_ = makeError(SQLITE_OK, sqlite3_errstr(SQLITE_OK));
  return true;
}

bool Database::notOpen(Error* out) {
  return fail(makeError(SQLITE_MISUSE, "The database " + path_ + " is not open"), out);
}

bool Database::open(int flags, Error* error) {
  if (db_) return succeed();
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path_.c_str(), &raw, flags, nullptr);
  ScopedDb db(raw);
  if (rc != SQLITE_OK) {
    std::string message = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
    int code = raw ? sqlite3_extended_errcode(raw) : rc;
    return fail(makeError(code, message + " (" + path_ + ")"), error);
  }
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, static_cast<int>(busyTimeout_.count()));
  db_ = std::move(db);
  if (persistentWal_) setPersistentWal(true);
  if (!checkpointOnClose_) setCheckpointOnClose(false);
  if (logLimitPages_ > 0) setLogLimit(logLimitPages_);
  return succeed();
}

bool Database::close() {
  // Statements go first, so that the connection really closes now.
  cache_.clear();
  db_.reset();
  return succeed();
}

void Database::setBusyTimeout(std::chrono::milliseconds timeout) {
  busyTimeout_ = timeout;
  if (db_) sqlite3_busy_timeout(db_.get(), static_cast<int>(timeout.count()));
}

void Database::setPersistentWal(bool persistent) {
  persistentWal_ = persistent;
  int flag = persistent ? 1 : 0;
  if (db_) sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_PERSIST_WAL, &flag);
}

void Database::setCheckpointOnClose(bool checkpoint) {
  checkpointOnClose_ = checkpoint;
  if (db_)
    sqlite3_db_config(db_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, checkpoint ? 0 : 1, nullptr);
}

void Database::setLogLimit(int pages) {
  logLimitPages_ = pages;
  if (!db_) return;
  if (pages <= 0) {
    sqlite3_wal_autocheckpoint(db_.get(), kSqliteDefaultAutocheckpointPages);
    return;
  }
  // Called after each commit, once the write lock is given back.
  auto emptyWhenFull = [](void* context, sqlite3*, const char*, int logPages) {
    auto* self = static_cast<Database*>(context);
    if (logPages >= self->logLimitPages_) self->checkpointAndEmptyLog();
    return SQLITE_OK;
  };
  sqlite3_wal_hook(db_.get(), emptyWhenFull, this);
}

bool Database::checkpointAndEmptyLog(Error* error) {
  if (!db_) return notOpen(error);
  // A reader of another process may hold the log for long; waiting for it would hold up the
  // commit that asked. Its log is emptied by a later commit instead.
  sqlite3_busy_timeout(db_.get(), 0);
  int rc =
      sqlite3_wal_checkpoint_v2(db_.get(), "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  sqlite3_busy_timeout(db_.get(), static_cast<int>(busyTimeout_.count()));
  if (rc != SQLITE_OK) {
    return fail(makeError(sqlite3_extended_errcode(db_.get()), sqlite3_errmsg(db_.get())), error);
  }
  return succeed();
}

bool Database::executeStatements(std::string_view sql, Error* error) {
  if (!db_) return notOpen(error);
  char* message = nullptr;
  int rc = sqlite3_exec(db_.get(), std::string(sql).c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    return fail(makeError(sqlite3_extended_errcode(db_.get()), std::move(text)), error);
  }
  return succeed();
}

std::shared_ptr<Statement> Database::cachedStatement(std::string_view sql, Error* error) {
  if (!db_) {
    notOpen(error);
    return nullptr;
  }
  Error failure;
  std::shared_ptr<Statement> statement;
  if (sql.find("%@") == std::string_view::npos) {
    statement = cache_.get(db_.get(), sql, &failure);
  } else {
    statement = cache_.get(db_.get(), sql, &failure, bindablePlaceholders(sql));
  }
  if (!statement) {
    fail(std::move(failure), error);
    return nullptr;
  }
  return statement;
}

bool Database::executeUpdate(std::string_view sql, const std::vector<Value>& args, Error* error) {
  auto statement = cachedStatement(sql, error);
  if (!statement) return false;
  Error failure;
  bool ok = statement->bindAll(args, &failure) && statement->run(&failure);
  // Done with it: give back its locks now, not when it is next used.
  statement->reset();
  if (!ok) return fail(std::move(failure), error);
  return succeed();
}

std::optional<ResultSet> Database::executeQuery(std::string_view sql,
                                                const std::vector<Value>& args, Error* error) {
  auto statement = cachedStatement(sql, error);
  if (!statement) return std::nullopt;
  Error failure;
  if (!statement->bindAll(args, &failure)) {
    fail(std::move(failure), error);
    return std::nullopt;
  }
  succeed();
  return ResultSet(std::move(statement));
}

int64_t Database::lastInsertRowId() const { return db_ ? sqlite3_last_insert_rowid(db_.get()) : 0; }

int Database::changes() const { return db_ ? sqlite3_changes(db_.get()) : 0; }

}  // namespace vl::sqlite
