// The rows of a query, read one at a time with readers by column name or index. Part of the thin
// SQLite layer (results/sqlite/). Closing (or destroying) a result set resets its statement, so
// that the read lock it holds is given back.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/sqlite/statement.h"

namespace vl::sqlite {

class ResultSet {
 public:
  explicit ResultSet(std::shared_ptr<Statement> statement) : statement_(std::move(statement)) {}
  ~ResultSet() { close(); }
  ResultSet(ResultSet&&) noexcept = default;
  ResultSet& operator=(ResultSet&& other) noexcept;
  ResultSet(const ResultSet&) = delete;
  ResultSet& operator=(const ResultSet&) = delete;

  // Moves to the next row. False at the end, after close(), or on an error (then failed() is true
  // and error is filled).
  bool next(Error* error = nullptr);
  void close();
  bool failed() const { return failed_; }

  int columnCount() const;
  // The index of a column by name, case-insensitive, or -1.
  int columnIndex(std::string_view name) const;
  // Readers of the current row. An unknown column reads as NULL: "" / 0 / 0.0 / none / true.
  std::string stringForColumn(std::string_view name) const;
  int64_t longForColumn(std::string_view name) const;
  double doubleForColumn(std::string_view name) const;
  Value valueForColumn(std::string_view name) const;
  bool columnIsNull(std::string_view name) const;
  std::string stringForColumn(int index) const;
  int64_t longForColumn(int index) const;
  double doubleForColumn(int index) const;
  Value valueForColumn(int index) const;
  // The current row as a dictionary of column name to value, in column order.
  Dictionary resultDictionary() const;

 private:
  std::shared_ptr<Statement> statement_;
  bool failed_ = false;
};

}  // namespace vl::sqlite
