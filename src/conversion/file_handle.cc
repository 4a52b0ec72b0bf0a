#include "vorlund/conversion/file_handle.h"

#include <fcntl.h>
#include <unistd.h>

#include "vorlund/foundation/format.h"

namespace vl {

std::shared_ptr<FileHandle> FileHandle::adopt(int fd) {
  if (fd < 0) return nullptr;
  return std::shared_ptr<FileHandle>(new FileHandle(fd));
}

std::shared_ptr<FileHandle> FileHandle::duplicating(int fd) {
  if (fd < 0) return nullptr;
  int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return nullptr;
  return adopt(copy);
}

FileHandle::~FileHandle() { ::close(fd_); }

std::string FileHandle::description() const {
  return vl::format("<NSFileHandle: %p, fileDescriptor: %d>", static_cast<const void*>(this), fd_);
}

}  // namespace vl
