#include "vorlund/results/sqlite/result_set.h"

namespace vl::sqlite {

ResultSet& ResultSet::operator=(ResultSet&& other) noexcept {
  if (this != &other) {
    close();
    statement_ = std::move(other.statement_);
    failed_ = other.failed_;
  }
  return *this;
}

bool ResultSet::next(Error* error) {
  if (!statement_) return false;
  switch (statement_->step(error)) {
    case StepResult::kRow:
      return true;
    case StepResult::kDone:
      return false;
    case StepResult::kError:
      failed_ = true;
      return false;
  }
  return false;
}

void ResultSet::close() {
  if (!statement_) return;
  statement_->reset();
  statement_->clearBindings();
  statement_.reset();
}

int ResultSet::columnCount() const { return statement_ ? statement_->columnCount() : 0; }

int ResultSet::columnIndex(std::string_view name) const {
  return statement_ ? statement_->columnIndex(name) : -1;
}

std::string ResultSet::stringForColumn(std::string_view name) const {
  return stringForColumn(columnIndex(name));
}
int64_t ResultSet::longForColumn(std::string_view name) const {
  return longForColumn(columnIndex(name));
}
double ResultSet::doubleForColumn(std::string_view name) const {
  return doubleForColumn(columnIndex(name));
}
Value ResultSet::valueForColumn(std::string_view name) const {
  return valueForColumn(columnIndex(name));
}
bool ResultSet::columnIsNull(std::string_view name) const {
  return !statement_ || statement_->columnIsNull(columnIndex(name));
}

std::string ResultSet::stringForColumn(int index) const {
  return statement_ ? statement_->columnText(index) : "";
}
int64_t ResultSet::longForColumn(int index) const {
  return statement_ ? statement_->columnInt64(index) : 0;
}
double ResultSet::doubleForColumn(int index) const {
  return statement_ ? statement_->columnDouble(index) : 0.0;
}
Value ResultSet::valueForColumn(int index) const {
  return statement_ ? statement_->columnValue(index) : Value();
}

Dictionary ResultSet::resultDictionary() const {
  Dictionary row;
  for (int i = 0; i < columnCount(); ++i) row.set(statement_->columnName(i), valueForColumn(i));
  return row;
}

}  // namespace vl::sqlite
