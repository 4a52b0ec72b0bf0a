#include "vorlund/results/sqlite/transaction.h"

#include <sqlite3.h>

namespace vl::sqlite {

namespace {

const char* beginStatement(TransactionMode mode) {
  switch (mode) {
    case TransactionMode::kImmediate:
      return "BEGIN IMMEDIATE";
    case TransactionMode::kExclusive:
      return "BEGIN EXCLUSIVE";
    case TransactionMode::kDeferred:
      break;
  }
  return "BEGIN DEFERRED";
}

}  // namespace

Transaction::Transaction(Database& db, TransactionMode mode, Error* error) : db_(db) {
  active_ = db_.executeUpdate(beginStatement(mode), {}, error);
}

Transaction::~Transaction() {
  if (active_) rollback();
}

bool Transaction::commit(Error* error) {
  if (!active_) {
    setError(error, makeError(SQLITE_MISUSE, "No transaction is active"));
    return false;
  }
  if (!db_.executeUpdate("COMMIT", {}, error)) return false;
  active_ = false;
  return true;
}

bool Transaction::rollback(Error* error) {
  if (!active_) {
    setError(error, makeError(SQLITE_MISUSE, "No transaction is active"));
    return false;
  }
  active_ = false;
  // A failed statement may already have ended the transaction; then there is nothing to undo.
  if (!db_.isOpen() || sqlite3_get_autocommit(db_.handle())) return true;
  return db_.executeUpdate("ROLLBACK", {}, error);
}

}  // namespace vl::sqlite
