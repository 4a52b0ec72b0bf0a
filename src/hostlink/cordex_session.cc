// The ledger session this library ships: blocks go to the block file of ledger.h, one at a time on
// a serial queue of the session's own, so that writeBlock returns before the fsync.
#include <memory>

#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/hostlink/cordex_transform.h"
#include "vorlund/hostlink/ledger.h"

namespace {

class FileCordexSession final : public ZEPCordexSession {
 public:
  explicit FileCordexSession(const std::string& directory)
      : path_(vl::paths::join(directory, vl::kLedgerFileName)),
        queue_("com.brindle.Vorlund.cordex") {
    file_ = vl::LedgerFile::open(path_, &openError_);
  }

  // The queue is declared last, so it finishes the blocks still queued before the file closes.
  ~FileCordexSession() override = default;

  void writeBlock(vl::Data data, Completion completion) override {
    queue_.async([this, data = std::move(data), completion = std::move(completion)] {
      vl::Error error = openError_;
      std::optional<vl::LedgerBlock> block;
      if (file_) {
        block = file_->append(data.view(), &error);
      }
      if (!completion) return;
      if (!block) {
        completion(std::nullopt, &error);
        return;
      }
      vl::Dictionary result;
      result.set("Index", vl::Value(static_cast<int64_t>(block->index)));
      result.set("Time", block->time);
      result.set("Length", vl::Value(static_cast<int64_t>(block->length())));
      result.set("Hash", block->hash);
      result.set("PreviousHash", block->previousHash);
      result.set("Path", path_);
      completion(result, nullptr);
    });
  }

  void flush() override {
    queue_.sync([] {});
  }

  std::string description() const override {
    return vl::format("<ZEPCordexSession %s>", path_.c_str());
  }

 private:
  const std::string path_;
  vl::Error openError_;
  std::unique_ptr<vl::LedgerFile> file_;
  vl::SerialQueue queue_;
};

}  // namespace

std::shared_ptr<ZEPCordexSession> ZEPCordexSession::withDirectory(const std::string& directory) {
  return std::make_shared<FileCordexSession>(directory);
}
