// Incoming data: a reply, or on the service's side a request, read as it arrives.
#pragma once

#include <istream>
#include <memory>

namespace agent::spf::core {

class ImportedDataSource {
 public:
  virtual ~ImportedDataSource() = default;

  // The istream over the bytes. Call it once: a second call throws FrameworkError.
  //
  // The istream may outlive this object. Reading pulls frames, so a reader that is slow stalls the sender and not the
  // heap. Destroying it before its end cancels the call.
  // Errors: its exception mask holds badbit, so that a failure in mid-transfer (Terminated, Timeout, the service's own
  // error chain) leaves its read functions as the exception it is and is never taken for the end.
  // Size:   rdbuf()->in_avail() says how many more bytes are sure to come, where the sender announced it; 0 if unknown.
  // Threads: one at a time.
  virtual std::unique_ptr<std::istream> getImportedIstream() = 0;
};

}  // namespace agent::spf::core
