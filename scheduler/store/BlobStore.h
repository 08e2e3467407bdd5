// Blobs: bytes named by their SHA-256, kept once however often they are put.
//
// A small blob is a column of its row; a larger one is a file, "blobs/ab/cdef...", written elsewhere, synced and renamed
// before the transaction that names it. A blob is kept while somebody pins it, and an hour longer; pins are durable. An
// upload may come in pieces; until it is whole it is a file in "uploads", which a restart keeps and which expires.
//
// Threads: any. One upload (a holder and a digest) and one reader: one thread at a time.
// Errors:  those named at the functions; std::system_error for files; parallel::store::StoreFailed, and what ends the
//          store (GroupCommit.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/UniqueFd.h"
#include "scheduler/store/Files.h"
#include "scheduler/store/GroupCommit.h"
#include "scheduler/store/Quota.h"
#include "scheduler/store/Sha256.h"

namespace parallel::scheduler::store {

using WallTime = std::chrono::sys_time<std::chrono::milliseconds>;

// Who keeps a blob: "job 17", "key 4f1c...", "attempt 17.3.1". Of the caller's choosing.
using Holder = std::string;

class BlobReader;
class BlobUpload;

class BlobStore {
 public:
  // A blob of at most so many bytes has no file. docs/store.md says how that was measured.
  static constexpr std::uint64_t kSmallBytes = std::uint64_t{64} << 10;
  static constexpr std::chrono::hours kKeptUnused{1};
  static constexpr std::chrono::hours kUploadKept{24};

  // Ownership: borrows all. The folders "blobs" and "uploads" are made in `folder`.
  BlobStore(const std::filesystem::path& folder, Files& files, GroupCommit& commits, Quota& quota);
  BlobStore(const BlobStore&) = delete;
  BlobStore& operator=(const BlobStore&) = delete;

  // Which of them are not there. All are pinned, those that are missing for when they come. Durable when it returns.
  std::vector<Digest> pin(const Holder& holder, const std::vector<Digest>& digests, WallTime now);
  // The holder's pins, all of them. What nobody else pins goes an hour later.
  void unpin(const Holder& holder, WallTime now);

  // How many bytes of the blob have come: all of them when it is there.
  std::uint64_t received(const Holder& holder, const Digest& digest);
  // Takes a blob of `nbytes` from byte `offset` on. BadUploadOffset unless that is where the upload ended.
  std::unique_ptr<BlobUpload> upload(const Holder& holder, const Digest& digest, std::uint64_t nbytes,
                                     std::uint64_t offset);
  // All of it at once.
  void put(const Holder& holder, std::string_view content, WallTime now);

  // Several small ones at once, in one commit.
  void putSmall(const Holder& holder, const std::vector<std::string>& contents, WallTime now);

  // For a write beside others, in their transaction: the holder has these blobs, which are there, pinned; or none any
  // more.
  static void pinIn(GroupCommit::Group& group, const Holder& holder, const std::vector<Digest>& digests);
  static void unpinIn(GroupCommit::Group& group, const Holder& holder, WallTime now);
  // Holders that have something pinned, and whose names begin like that; not with nothing.
  std::vector<Holder> holders(const std::string& prefix);

  // NoSuchBlob. What is read counts as used.
  std::unique_ptr<BlobReader> open(const Digest& digest, WallTime now);

  struct Collected {
    std::uint64_t blobs = 0;
    std::uint64_t uploads = 0;
  };
  // Removes what nobody pins and nobody has used for an hour, and uploads that have paused for a day.
  Collected collect(WallTime now);
  // Removes files without a row. Looks at every file: for a quiet moment after a start.
  std::uint64_t sweepFiles();

  struct Damage {
    Digest digest;
    std::string what;
  };
  // Reads every blob whole. Changes nothing.
  std::vector<Damage> check();

 private:
  friend class BlobReader;
  friend class BlobUpload;

  std::filesystem::path pathOf(const Digest& digest) const;
  std::filesystem::path uploadPath(const Holder& holder, const Digest& digest) const;
  bool has(const Digest& digest);
  struct SmallBlob {
    Digest digest;
    std::string_view content;
  };
  void keepSmall(const Holder& holder, const std::vector<SmallBlob>& blobs, WallTime now);
  void keepFile(const Holder& holder, const Digest& digest, std::uint64_t nbytes, WallTime now);
  void dropUpload(const std::filesystem::path& path);
  // Takes blobs out of the store in one transaction; `choose` lists them.
  std::uint64_t takeOut(const std::function<std::vector<Digest>(Database&)>& choose);
  std::unique_ptr<BlobReader> openFor(const Digest& digest, bool givesUpDamaged);

  const std::filesystem::path blobs_;
  const std::filesystem::path uploads_;
  Files& files_;
  GroupCommit& commits_;
  Quota& quota_;
};

// One blob on its way into the store. What has come stays when it is cut off, unless the blob is a small one.
class BlobUpload {
 public:
  BlobUpload(const BlobUpload&) = delete;
  BlobUpload& operator=(const BlobUpload&) = delete;

  // BlobMismatch for more than the blob has, QuotaExceeded.
  void write(std::string_view piece);
  // The blob is there and pinned, durably, when this returns. BlobMismatch, and the upload is gone, when what came is not
  // that blob.
  void finish(WallTime now);

 private:
  friend class BlobStore;
  BlobUpload(BlobStore& store, Holder holder, const Digest& digest, std::uint64_t nbytes);
  void goOnAt(std::uint64_t offset);
  bool isSmall() const noexcept { return nbytes_ <= BlobStore::kSmallBytes; }
  [[noreturn]] void refuse(const std::string& what);

  BlobStore& store_;
  const Holder holder_;
  const Digest digest_;
  const std::uint64_t nbytes_;
  const std::filesystem::path path_;
  std::string content_;  // of a small one
  files::UniqueFd file_;
  Sha256 sum_;
  std::uint64_t received_ = 0;
};

// Reads a blob from its beginning or from an offset, and checks what it reads: the last piece is only handed out when size
// and digest of the whole are right. What lies before the offset is read too.
class BlobReader {
 public:
  BlobReader(const BlobReader&) = delete;
  BlobReader& operator=(const BlobReader&) = delete;

  std::uint64_t nbytes() const noexcept { return nbytes_; }
  // Goes on at that byte; not backwards.
  void skipTo(std::uint64_t offset);
  // The next bytes, `most` of them unless the end comes first; empty at the end. BlobDamaged: the blob is taken out.
  std::string read(std::size_t most);

 private:
  friend class BlobStore;
  BlobReader(BlobStore& store, const Digest& digest, std::uint64_t nbytes, std::string content, bool givesUpDamaged);

  std::string readFile(std::size_t wanted);
  void expectWhole();
  [[noreturn]] void fail(const std::string& what);

  BlobStore& store_;
  const Digest digest_;
  const std::uint64_t nbytes_;
  const std::string content_;  // of a small one
  const bool givesUpDamaged_;
  files::UniqueFd file_;
  Sha256 sum_;
  std::uint64_t position_ = 0;
  bool isFile_ = false;
  bool isChecked_ = false;
};

}  // namespace parallel::scheduler::store
