// A file that appears under its name only when it is whole.
//
// Until commit() it stands beside its place under a name of its own, ".zks-..."; every way out but commit() removes it,
// and removeAllTemporaryFiles() does so for a program that is about to end at once. A file that was there before stays
// as it was until the new one replaces it; a link to a file stays, and the file is replaced.
//
// Threads: one at a time per object. Errors: `CannotWriteFile` and `CannotWriteIntoDirectory`, with the system's
// reason.
#pragma once

#include <functional>
#include <string>

namespace parallel::toolbox {

class AtomicFile {
 public:
  // Creates the temporary file, so that what cannot be written is found out here.
  explicit AtomicFile(const std::string& path);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  const std::string& temporaryPath() const noexcept { return temporaryPath_; }
  const std::string& path() const noexcept { return path_; }

  // Lets the writer write to the temporary path. Its failure passes through, unless it lies with the file, as a full
  // disk does: then the error names the file and the system's reason, which those of streams tell neither.
  void write(const std::function<void(const std::string& temporaryPath)>& writer) const;

  // Puts the file in its place, over one that is there. Finds out first whether a writer lost an error.
  void commit();

 private:
  void checkWritable() const;

  std::string path_;
  std::string temporaryPath_;  // empty once it is gone
};

// Throws unless an AtomicFile could be made for the path, as far as that can be told without making one.
void checkWritablePlace(const std::string& path);

// Throws when files cannot be created in the directory.
void checkDirectory(const std::string& directory);

// Of all AtomicFiles of the process.
void removeAllTemporaryFiles() noexcept;

}  // namespace parallel::toolbox
