// A file that appears under its name only when it is whole.
//
// Until commit() it stands beside its place under a name of its own, ".zks-..."; every way out but commit() removes it,
// and removeAllTemporaryFiles() does so for a program that is about to end at once.
//
// Threads: one at a time per object. Errors: CliError names the directory or the file and the system's reason.
#pragma once

#include <string>

namespace zks {

class AtomicFile {
 public:
  // Creates the temporary file, so a directory that cannot be written to is found out here.
  AtomicFile(const std::string& directory, const std::string& name);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  const std::string& temporaryPath() const noexcept { return temporaryPath_; }
  const std::string& path() const noexcept { return path_; }

  // Throws the system's reason if the file cannot take more bytes. For a writer that lost an error: a full disk or a
  // limit that cut the file short is still there to be found.
  void checkWritable() const;

  // Puts the file in its place, over one that is there.
  void commit();

 private:
  std::string path_;
  std::string temporaryPath_;  // empty once it is gone
};

// Throws CliError when files cannot be created in the directory.
void checkDirectory(const std::string& directory);

// Of all AtomicFiles of the process.
void removeAllTemporaryFiles() noexcept;

}  // namespace zks
