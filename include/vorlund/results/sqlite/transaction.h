// A transaction on a Database that rolls back in its destructor unless it was committed. Part of
// the thin SQLite layer (results/sqlite/).
#pragma once

#include "vorlund/foundation/error.h"
#include "vorlund/results/sqlite/database.h"

namespace vl::sqlite {

enum class TransactionMode {
  kDeferred,   // locks are taken by the first read or write
  kImmediate,  // the write lock is taken at once (waiting up to the busy timeout)
  kExclusive,
};

class Transaction {
 public:
  // Begins a transaction. When it cannot begin (closed database, busy, already in a transaction),
  // isActive() is false and error says why.
  explicit Transaction(Database& db, TransactionMode mode = TransactionMode::kDeferred,
                       Error* error = nullptr);
  // Rolls back when still active.
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  bool isActive() const { return active_; }
  // Commits. False, with error, when not active or the commit fails; a failed commit leaves the
  // transaction active, so that the destructor rolls it back.
  bool commit(Error* error = nullptr);
  // Rolls back now. False when not active or the rollback fails.
  bool rollback(Error* error = nullptr);

 private:
  Database& db_;
  bool active_ = false;
};

}  // namespace vl::sqlite
