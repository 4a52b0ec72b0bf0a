// A file handle: a record that owns one open file descriptor and closes it when the last reference
// goes. This is how a descriptor travels inside dictionaries and arrays (IPM messages carry them).
#pragma once

#include <memory>
#include <string>

#include "vorlund/foundation/value.h"

namespace vl {

class FileHandle : public Record {
 public:
  // Takes ownership of fd (closed with the handle). nullptr for a negative fd.
  static std::shared_ptr<FileHandle> adopt(int fd);
  // A handle on a duplicate of fd (close-on-exec); fd itself stays with the caller. nullptr, with
  // errno set, when fd cannot be duplicated.
  static std::shared_ptr<FileHandle> duplicating(int fd);

  ~FileHandle() override;
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  int fileDescriptor() const { return fd_; }

  std::string className() const override { return "NSFileHandle"; }
  std::string description() const override;

 private:
  explicit FileHandle(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace vl
