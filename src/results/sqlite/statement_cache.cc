#include "vorlund/results/sqlite/statement_cache.h"

namespace vl::sqlite {

std::shared_ptr<Statement> StatementCache::get(sqlite3* db, std::string_view sql, Error* error,
                                               std::string_view compiledSql) {
  if (compiledSql.empty()) compiledSql = sql;
  if (auto found = index_.find(sql); found != index_.end()) {
    auto entry = found->second;
    if (entry->second.use_count() == 1) {
      entries_.splice(entries_.begin(), entries_, entry);
      entry->second->reset();
      entry->second->clearBindings();
      return entry->second;
    }
    // Still in use by an earlier caller (an open result set, say): a private statement instead.
    auto statement = Statement::prepare(db, compiledSql, error);
    return statement ? std::make_shared<Statement>(std::move(*statement)) : nullptr;
  }
  auto statement = Statement::prepare(db, compiledSql, error);
  if (!statement) return nullptr;
  auto shared = std::make_shared<Statement>(std::move(*statement));
  if (capacity_ == 0) return shared;
  if (entries_.size() >= capacity_) {
    index_.erase(entries_.back().first);
    entries_.pop_back();
  }
  entries_.emplace_front(std::string(sql), shared);
  index_.emplace(entries_.front().first, entries_.begin());
  return shared;
}

void StatementCache::clear() {
  index_.clear();
  entries_.clear();
}

}  // namespace vl::sqlite
