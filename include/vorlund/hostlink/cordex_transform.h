// VLCordexTransform: copies finished result records into the device's block ledger, one JSON block
// each, through a ledger session (ZEPCordexSession). The session this library ships appends to the
// block file of ledger.h in "~/Library/Logs/ZEP/Data".
//
// Finished runs reach the transform through the results layer's finished-run handler
// (results/finished_run.h), which this module installs when it is linked in: VLResults::finish()
// is the one place where a run ends (the service's and the front end's reset both end there), and
// the results layer sits below the host link, so it cannot call up here itself. The handler reads
// the preference "LedgerResults" on every finished run and passes the run on only when it is true.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

class VLResults;

// A session on a ledger: the two operations the transform needs of the ledger library.
class ZEPCordexSession {
 public:
  // (the written block, or none; an error, or none)
  using Completion =
      std::function<void(const std::optional<vl::Dictionary>& result, const vl::Error* error)>;

  // A session on the block file kLedgerFileName in directory (created when missing). Opening it
  // cuts a torn last block (see LedgerFile::open). Never nullptr: when the file cannot be opened,
  // every write completes with that error.
  static std::shared_ptr<ZEPCordexSession> withDirectory(const std::string& directory);

  virtual ~ZEPCordexSession() = default;
  // Writes data as one block and calls completion on the session's own thread once it is on disk
  // or has failed; the result describes the block: "Index", "Time", "Length", "Hash",
  // "PreviousHash", "Path".
  virtual void writeBlock(vl::Data data, Completion completion) = 0;
  // Waits until every block handed to writeBlock so far has been written or has failed.
  virtual void flush() = 0;
  // One line naming the session and its file, for logs.
  virtual std::string description() const = 0;
};

namespace vl {

// What the transform needs of a result record: its dictionary representation (turned into JSON as
// it stands, so it must hold only what JSON can) and its result identifier, for the log.
struct LedgerRecord {
  std::string resultIdentifier;
  Dictionary dictionary;
};

// A finished run as a ledger record: the results file's dictionary with dates as the library's date
// strings, identified by the results file's name.
LedgerRecord ledgerRecordForRun(const VLResults& run);

}  // namespace vl

// Neither operation reports to its caller: failures appear only in the log.
class VLCordexTransform {
 public:
  using SessionFactory = std::function<std::shared_ptr<ZEPCordexSession>(const std::string&)>;

  // "~/Library/Logs/ZEP/Data", tilde expanded.
  static std::string dataDirectory();

  // Logs at level 2, category "CordexTransform", "Create Cordex Session", creates the session on
  // dataDirectory() with makeSession (the block-file session by default), logs "Create Cordex
  // Session... Done".
  explicit VLCordexTransform(const SessionFactory& makeSession = ZEPCordexSession::withDirectory);

  // Hands the record's JSON to the session as one block and returns before it is written. Logs
  // "transformResult", "~ Array is:%@" and "~ Cordex Session is:%@" at level 2 (category
  // "Cordex"); a record without JSON is logged at level 16 with an empty category ("Could not
  // generate json from result %@") and dropped. The completion logs "Cordex failed to write block
  // data: %@" and "Cordex Block write done: %@", both at level 16 on purpose (the success line
  // too).
  void transformResult(const vl::LedgerRecord& record);

  const std::shared_ptr<ZEPCordexSession>& cordexSession() const { return cordexSession_; }
  // Empty; kept because the transform has always carried it.
  const vl::Array& array() const { return array_; }

 private:
  std::shared_ptr<ZEPCordexSession> cordexSession_;
  vl::Array array_;
};
