// A SQLite database connection, owned: open with flags, close, statement execution, updates and
// queries with parameters, the last error, the last insert row id and the busy timeout. The thin
// layer over the SQLite C API that the timeline database is built on (results/sqlite/). Nothing
// here throws; failures are return values, vl::Error and lastError().
//
// A Database is used by one thread at a time; its owner provides the lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/sqlite/result_set.h"
#include "vorlund/results/sqlite/statement.h"
#include "vorlund/results/sqlite/statement_cache.h"

namespace vl::sqlite {

// Closes a connection (deferred by SQLite until its last statement is finalized).
struct DbCloser {
  void operator()(sqlite3* db) const noexcept;
};
using ScopedDb = std::unique_ptr<sqlite3, DbCloser>;

// Open flags; the same bits as SQLite's SQLITE_OPEN_READONLY, _READWRITE and _CREATE.
enum OpenFlags : int {
  kOpenReadOnly = 0x01,
  kOpenReadWrite = 0x02,
  kOpenCreate = 0x04,
};

// "%@" placeholders outside quoted text become "?" parameters; everything else is kept. Lets a
// statement written with the system's "%@" placeholders be compiled with bound parameters.
std::string bindablePlaceholders(std::string_view sql);

class Database {
 public:
  // A closed connection to the database file at path (":memory:" for a private in-memory one).
  explicit Database(std::string path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  const std::string& path() const { return path_; }
  // "<VLSQLiteDatabase: path (open|closed)>", as logs print the object.
  std::string description() const;

  // Opens the file with flags (a mask of OpenFlags). True when open, also when it already was.
  // False, with error and lastError(), when SQLite cannot open it (a missing folder, no
  // permission). SQLite reads the file lazily: a file that is not a database opens and fails on
  // its first statement.
  bool open(int flags = kOpenReadWrite | kOpenCreate, Error* error = nullptr);
  // Finalizes the cached statements and closes. True when closed (also when it was not open).
  bool close();
  bool isOpen() const { return db_ != nullptr; }
  sqlite3* handle() const { return db_.get(); }

  // How long a statement waits for another connection's lock before failing with SQLITE_BUSY.
  // Kept for later opens when the connection is closed.
  void setBusyTimeout(std::chrono::milliseconds timeout);
  std::chrono::milliseconds busyTimeout() const { return busyTimeout_; }

  // In write-ahead-log mode, whether closing keeps the log file (emptied by the checkpoint) rather
  // than deleting it, so that the next use overwrites it in place instead of creating it again.
  // Kept for later opens when the connection is closed.
  void setPersistentWal(bool persistent);
  // In write-ahead-log mode, whether the last connection to close folds the log back into the
  // database file (SQLite's default). Without it the log stays for the next use, and is folded
  // back only by checkpoints (automatic ones as it grows, or "PRAGMA wal_checkpoint").
  // Kept for later opens when the connection is closed.
  void setCheckpointOnClose(bool checkpoint);
  // In write-ahead-log mode, empties the log after every commit that leaves it holding `pages`
  // pages or more (see checkpointAndEmptyLog); 0 leaves SQLite's own automatic checkpoint. Needed
  // by a file that is opened anew for each use: a new connection rebuilds the log's index from the
  // log file and forgets which pages earlier checkpoints copied back, so SQLite's automatic
  // checkpoint never lets the log start over, and the log (and the reading of it at every open)
  // grows with every commit. Kept for later opens when the connection is closed.
  void setLogLimit(int pages);
  // Copies every page of the log back into the database file, syncs it and cuts the log to
  // nothing, without waiting for other connections. False, with error, when another connection is
  // reading or writing: the log then stays as it was, whole, for a later checkpoint.
  bool checkpointAndEmptyLog(Error* error = nullptr);

  // Runs one or more ';'-separated statements without parameters, discarding rows. False, with
  // error, at the first that fails (the earlier ones stay done).
  bool executeStatements(std::string_view sql, Error* error = nullptr);
  // Runs one statement whose "%@" placeholders (and any SQLite parameters) are bound to args in
  // order. The statement is compiled once and kept in the connection's cache. False, with error,
  // when closed, on a compile error, a mismatched number of arguments or a failed step.
  bool executeUpdate(std::string_view sql, const std::vector<Value>& args = {},
                     Error* error = nullptr);
  // A query with parameters as executeUpdate; the rows are read from the result set. None, with
  // error, when closed, on a compile error or a mismatched number of arguments.
  std::optional<ResultSet> executeQuery(std::string_view sql, const std::vector<Value>& args = {},
                                        Error* error = nullptr);
  // The cached compiled statement for sql ("%@" placeholders allowed), reset and unbound. Null,
  // with error, when closed or on a compile error.
  std::shared_ptr<Statement> cachedStatement(std::string_view sql, Error* error = nullptr);
  const StatementCache& statementCache() const { return cache_; }

  // Rowid of the latest successful INSERT on this connection, 0 when none or closed.
  int64_t lastInsertRowId() const;
  // Rows changed by the latest INSERT, UPDATE or DELETE.
  int changes() const;
  // The error of the latest failed operation, or code 0 "not an error" when the latest succeeded.
  int lastErrorCode() const { return static_cast<int>(lastError_.code); }
  std::string lastErrorMessage() const { return lastError_.localizedDescription(); }
  const Error& lastError() const { return lastError_; }

 private:
  bool fail(Error error, Error* out);
  bool succeed();
  bool notOpen(Error* out);

  std::string path_;
  ScopedDb db_;
  StatementCache cache_;
  std::chrono::milliseconds busyTimeout_{0};
  bool persistentWal_ = false;
  bool checkpointOnClose_ = true;
  int logLimitPages_ = 0;
  Error lastError_;
};

}  // namespace vl::sqlite
