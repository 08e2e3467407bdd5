// A file that appears under its name only when it is whole and on the disk.
//
// Until commit() it has no name, so that it is gone when the process is, however that ends. Where the file system knows
// no files without names it is called ".zks-..." beside its place: the destructor removes it, removeAllTemporaryFiles()
// does for a program that ends at once, and what a killed program left is removed by whoever writes there a day later.
//
// A file that was there before stays as it was until the new one replaces it, which takes over its mode, its access
// list, its attributes and, where the user may give them away, its owner and group. A link to a file stays, and the file
// is replaced.
//
// Of a large file only the end stays in the system's memory: a file that is given up would else take long to close.
//
// Threads: one at a time per object.
// Errors:  `CannotWriteFile` and `CannotWriteIntoDirectory`, with the system's reason. On an interpreter thread a user
//          interrupt ends write() and commit(), within some 100 ms unless the disk takes longer for 4 MiB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/files/UniqueFd.h"
#include "transport/streams/ByteSink.h"

namespace parallel::toolbox {

enum class FileKind { Data, Program };

class AtomicFile final : public spf::transport::ByteSink {
 public:
  // Creates the file, so that what cannot be written is found out here.
  explicit AtomicFile(const std::string& path);
  ~AtomicFile() override;

  const std::string& path() const noexcept { return path_; }

  void write(const std::byte* data, std::size_t nbytes) override;

  // Whoever may read the file may run it as well.
  void makeExecutable();

  // Puts the file in its place, over one that is there, once all that was written has reached the disk.
  void commit();

 private:
  void create();
  void flush();
  void pass(const std::byte* data, std::size_t nbytes);
  void writeOut();
  void sync();
  void close();
  void putInPlace();
  [[noreturn]] void refuse(int error) const;

  std::string path_;
  files::UniqueFd file_;
  std::string temporaryPath_;  // empty while it has no name
  std::vector<std::byte> buffer_;
  std::uint64_t written_ = 0;     // bytes that the system has taken
  std::uint64_t writtenOut_ = 0;  // of these, bytes on their way to the disk
};

// Has the writer fill the file at the path by way of an AtomicFile; a program becomes executable. What is a device or a
// pipe is written to as it is.
void writeFile(const std::string& path, const std::function<void(spf::transport::ByteSink&)>& writer,
               FileKind kind = FileKind::Data);

// Throws unless an AtomicFile could be made for the path, as far as that can be told without making one.
void checkWritablePlace(const std::string& path);

// Throws when files cannot be created in the directory.
void checkDirectory(const std::string& directory);

// Of all AtomicFiles of the process that have a name.
void removeAllTemporaryFiles() noexcept;

}  // namespace parallel::toolbox
