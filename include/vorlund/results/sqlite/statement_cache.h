// A small cache of compiled statements of one connection, keyed by SQL text, so that statements run
// again and again (the timeline's inserts, transaction control) are compiled once. Least recently
// used statements are dropped first. Part of the thin SQLite layer (results/sqlite/).
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "vorlund/results/sqlite/statement.h"

namespace vl::sqlite {

class StatementCache {
 public:
  static constexpr size_t kDefaultCapacity = 32;

  explicit StatementCache(size_t capacity = kDefaultCapacity) : capacity_(capacity) {}

  // The statement for sql, reset and with its bindings cleared; compiled from compiledSql (which
  // defaults to sql) on the first request. A statement still held by an earlier caller is not
  // handed out twice: such a caller gets a fresh statement that is not cached. Null, with error,
  // when it does not compile.
  std::shared_ptr<Statement> get(sqlite3* db, std::string_view sql, Error* error = nullptr,
                                 std::string_view compiledSql = {});
  // Drops every statement (those still held elsewhere live on until released).
  void clear();
  size_t size() const { return entries_.size(); }
  size_t capacity() const { return capacity_; }

 private:
  using Entry = std::pair<std::string, std::shared_ptr<Statement>>;
  size_t capacity_;
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<std::string_view, std::list<Entry>::iterator> index_;
};

}  // namespace vl::sqlite
