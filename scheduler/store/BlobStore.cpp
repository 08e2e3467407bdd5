#include "scheduler/store/BlobStore.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {

using Group = GroupCommit::Group;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kFolderDigits = 2;
constexpr std::string_view kRemovedMark = "removed-";
// A reader counts as a use only when the last one was so long ago: most reads write nothing.
constexpr std::chrono::minutes kUseGrain{10};

std::int64_t inMilliseconds(WallTime time) {
  return time.time_since_epoch().count();
}

std::uint64_t sizeOf(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size)
                                                                        : 0;
}

void addPin(Database& database, const Holder& holder, const Digest& digest) {
  Statement(database, "INSERT OR IGNORE INTO pins VALUES (?, ?)").bind(holder).bindBytes(digest.bytes()).run();
}

bool hasRow(Database& database, const Digest& digest) {
  Statement find(database, "SELECT 1 FROM blobs WHERE digest = ?");
  return find.bindBytes(digest.bytes()).step();
}

std::vector<Digest> digestsOf(Statement& rows) {
  std::vector<Digest> digests;
  while (rows.step()) {
    if (const auto digest = Digest::fromBytes(rows.bytes()))
      digests.push_back(*digest);
  }
  return digests;
}

template <class Visit>
void forEachFile(const fs::path& folder, Visit visit) {
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    std::error_code gone;
    if (entry->is_regular_file(gone))
      visit(entry->path());
  }
}

}  // namespace

BlobStore::BlobStore(const fs::path& folder, Files& files, GroupCommit& commits, Quota& quota)
    : blobs_(folder / "blobs"), uploads_(folder / "uploads"), files_(files), commits_(commits), quota_(quota) {
  files_.makeFolder(blobs_);
  files_.makeFolder(uploads_);
  files_.syncFolder(folder);
  quota_.note(commits_.askCommitted([](Database& database) {
    Statement sum(database, "SELECT coalesce(sum(nbytes), 0), count(*) FILTER (WHERE content IS NULL) FROM blobs");
    sum.step();
    const std::uint64_t nbytes = sum.number();
    return Quota::Use{nbytes, sum.number()};
  }));
  forEachFile(uploads_, [this](const fs::path& path) { quota_.note({sizeOf(path), 1}); });
}

fs::path BlobStore::pathOf(const Digest& digest) const {
  const std::string text = digest.text();
  return blobs_ / text.substr(0, kFolderDigits) / text.substr(kFolderDigits);
}

fs::path BlobStore::uploadPath(const Holder& holder, const Digest& digest) const {
  return uploads_ / (digest.text() + "-" + Digest::of(holder).text());
}

// --- Pins ---

std::vector<Digest> BlobStore::pin(const Holder& holder, const std::vector<Digest>& digests, WallTime now) {
  std::vector<Digest> missing;
  commits_.writeAndWait([&](Group& group) {
    missing.clear();
    Statement use(group.database, "UPDATE blobs SET used = max(used, ?) WHERE digest = ?");
    for (const Digest& digest : digests) {
      addPin(group.database, holder, digest);
      use.bind(inMilliseconds(now)).bindBytes(digest.bytes()).run();
      if (group.database.changedRows() == 0)
        missing.push_back(digest);
    }
  });
  return missing;
}

void BlobStore::unpin(const Holder& holder, WallTime now) {
  commits_.writeAndWait([&](Group& group) { unpinIn(group, holder, now); });
}

void BlobStore::pinIn(Group& group, const Holder& holder, const std::vector<Digest>& digests) {
  for (const Digest& digest : digests)
    addPin(group.database, holder, digest);
}

void BlobStore::unpinIn(Group& group, const Holder& holder, WallTime now) {
  Statement(group.database,
            "UPDATE blobs SET used = max(used, ?) WHERE digest IN (SELECT digest FROM pins WHERE holder = ?)")
      .bind(inMilliseconds(now))
      .bind(holder)
      .run();
  Statement(group.database, "DELETE FROM pins WHERE holder = ?").bind(holder).run();
}

std::vector<Holder> BlobStore::holders(const std::string& prefix) {
  std::string behind = prefix;
  ++behind.back();
  return commits_.askCommitted([&](Database& database) {
    std::vector<Holder> found;
    Statement find(database, "SELECT DISTINCT holder FROM pins WHERE holder >= ? AND holder < ?");
    for (find.bind(prefix).bind(behind); find.step();)
      found.push_back(find.text());
    return found;
  });
}

bool BlobStore::has(const Digest& digest) {
  return commits_.askCommitted([&](Database& database) { return hasRow(database, digest); });
}

// --- Uploads ---

std::uint64_t BlobStore::received(const Holder& holder, const Digest& digest) {
  const auto whole = commits_.askCommitted([&](Database& database) {
    Statement find(database, "SELECT nbytes FROM blobs WHERE digest = ?");
    return find.bindBytes(digest.bytes()).step() ? std::optional(find.number()) : std::nullopt;
  });
  return whole ? *whole : sizeOf(uploadPath(holder, digest));
}

std::unique_ptr<BlobUpload> BlobStore::upload(const Holder& holder, const Digest& digest, std::uint64_t nbytes,
                                              std::uint64_t offset) {
  std::unique_ptr<BlobUpload> upload(new BlobUpload(*this, holder, digest, nbytes));
  upload->goOnAt(offset);
  return upload;
}

void BlobStore::put(const Holder& holder, std::string_view content, WallTime now) {
  const Digest digest = Digest::of(content);
  const auto send = [&](std::uint64_t offset) {
    const auto upload = this->upload(holder, digest, content.size(), offset);
    upload->write(content.substr(offset));
    upload->finish(now);
  };
  const std::uint64_t begun = content.size() > kSmallBytes ? sizeOf(uploadPath(holder, digest)) : 0;
  try {
    send(std::min<std::uint64_t>(begun, content.size()));
  } catch (const Exception<parallel::store::BlobMismatch>&) {
    if (begun == 0)
      throw;
    send(0);  // what had come before was cut off by a crash
  }
}

void BlobStore::dropUpload(const fs::path& path) {
  const std::uint64_t nbytes = sizeOf(path);
  files_.remove(path);
  quota_.give({nbytes, 1});
}

void BlobStore::keepSmall(const Holder& holder, const std::vector<SmallBlob>& blobs, WallTime now) {
  std::uint64_t taken = 0;
  for (const SmallBlob& blob : blobs)
    taken += blob.content.size();
  quota_.take({taken, 0});
  std::uint64_t added = 0;
  commits_.writeAndWait([&](Group& group) {
    added = 0;
    Statement insert(group.database, "INSERT OR IGNORE INTO blobs VALUES (?, ?, ?, ?)");
    for (const auto& [digest, content] : blobs) {
      insert.bindBytes(digest.bytes()).bind(content.size()).bind(inMilliseconds(now)).bindBytes(content).run();
      added += group.database.changedRows() > 0 ? content.size() : 0;
      addPin(group.database, holder, digest);
    }
  });
  quota_.give({taken - added, 0});
}

void BlobStore::putSmall(const Holder& holder, const std::vector<std::string>& contents, WallTime now) {
  std::vector<SmallBlob> blobs;
  blobs.reserve(contents.size());
  for (const std::string& content : contents)
    blobs.push_back({Digest::of(content), content});
  keepSmall(holder, blobs, now);
}

// The rename is done on the thread of the commits, as is the removal of a blob: neither sees the other half done.
void BlobStore::keepFile(const Holder& holder, const Digest& digest, std::uint64_t nbytes, WallTime now) {
  const fs::path from = uploadPath(holder, digest);
  const fs::path to = pathOf(digest);
  bool wasThere = false;
  commits_.writeAndWait([&](Group& group) {
    wasThere = hasRow(group.database, digest);
    addPin(group.database, holder, digest);
    if (wasThere)
      return;
    files_.makeFolder(to.parent_path());
    if (fs::exists(from))  // not when the group is run again
      files_.rename(from, to);
    group.folders.add(to.parent_path());
    group.folders.add(blobs_);
    Statement(group.database, "INSERT INTO blobs VALUES (?, ?, ?, NULL)")
        .bindBytes(digest.bytes())
        .bind(nbytes)
        .bind(inMilliseconds(now))
        .run();
  });
  if (wasThere)
    dropUpload(from);
}

BlobUpload::BlobUpload(BlobStore& store, Holder holder, const Digest& digest, std::uint64_t nbytes)
    : store_(store),
      holder_(std::move(holder)),
      digest_(digest),
      nbytes_(nbytes),
      path_(store.uploadPath(holder_, digest)) {}

void BlobUpload::goOnAt(std::uint64_t offset) {
  constexpr std::size_t kPieceBytes = std::size_t{256} << 10;
  const std::uint64_t received = isSmall() ? 0 : sizeOf(path_);
  if (received > nbytes_)
    refuse("more than its " + std::to_string(nbytes_) + " bytes came before");
  if (offset != received)
    throw Exception<parallel::store::BadUploadOffset>(digest_.text(), received, offset);
  if (isSmall())
    return;
  if (received == 0 && !fs::exists(path_))
    store_.quota_.take({0, 1});
  file_ = store_.files_.openToAppend(path_);
  const files::UniqueFd reading(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  std::string piece(static_cast<std::size_t>(std::min<std::uint64_t>(received, kPieceBytes)), '\0');
  while (received_ < received) {
    const ssize_t got = ::pread(reading.get(), piece.data(), piece.size(), static_cast<off_t>(received_));
    if (got <= 0)
      refuse("what came before cannot be read");
    sum_.add({piece.data(), static_cast<std::size_t>(got)});
    received_ += static_cast<std::uint64_t>(got);
  }
}

void BlobUpload::write(std::string_view piece) {
  if (piece.size() > nbytes_ - received_)
    refuse("more than its " + std::to_string(nbytes_) + " bytes were sent");
  sum_.add(piece);
  if (isSmall()) {
    content_ += piece;
  } else {
    store_.quota_.take({piece.size(), 0});
    store_.files_.write(file_, piece, path_);
  }
  received_ += piece.size();
}

void BlobUpload::finish(WallTime now) {
  if (received_ != nbytes_)
    refuse(std::to_string(received_) + " of " + std::to_string(nbytes_) + " bytes were sent");
  if (sum_.digest() != digest_)
    refuse("its digest is another one");
  if (isSmall())
    return store_.keepSmall(holder_, {{digest_, content_}}, now);
  store_.files_.sync(file_, path_);
  file_.reset();
  store_.keepFile(holder_, digest_, nbytes_, now);
}

void BlobUpload::refuse(const std::string& what) {
  if (!isSmall()) {
    file_.reset();
    store_.dropUpload(path_);
  }
  throw Exception<parallel::store::BlobMismatch>(digest_.text(), what);
}

// --- Reading ---

std::unique_ptr<BlobReader> BlobStore::open(const Digest& digest, WallTime now) {
  const auto used = commits_.askCommitted([&](Database& database) {
    Statement find(database, "SELECT used FROM blobs WHERE digest = ?");
    return find.bindBytes(digest.bytes()).step() ? find.signedNumber() : inMilliseconds(now);
  });
  if (inMilliseconds(now - kUseGrain) > used)
    commits_.write(
        [digest, now](Group& group) {
          Statement(group.database, "UPDATE blobs SET used = max(used, ?) WHERE digest = ?")
              .bind(inMilliseconds(now))
              .bindBytes(digest.bytes())
              .run();
        },
        {});
  return openFor(digest, true);
}

std::unique_ptr<BlobReader> BlobStore::openFor(const Digest& digest, bool givesUpDamaged) {
  return commits_.askCommitted([&](Database& database) {
    Statement find(database, "SELECT nbytes, content FROM blobs WHERE digest = ?");
    if (!find.bindBytes(digest.bytes()).step())
      throw Exception<parallel::store::NoSuchBlob>(digest.text());
    const std::uint64_t nbytes = find.number();
    const bool isFile = find.skipNull();
    std::unique_ptr<BlobReader> reader(
        new BlobReader(*this, digest, nbytes, isFile ? std::string() : find.bytes(), givesUpDamaged));
    if (isFile)
      reader->file_ = files::UniqueFd(::open(pathOf(digest).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    reader->isFile_ = isFile;
    return reader;
  });
}

BlobReader::BlobReader(BlobStore& store, const Digest& digest, std::uint64_t nbytes, std::string content,
                       bool givesUpDamaged)
    : store_(store), digest_(digest), nbytes_(nbytes), content_(std::move(content)), givesUpDamaged_(givesUpDamaged) {}

void BlobReader::skipTo(std::uint64_t offset) {
  constexpr std::uint64_t kPieceBytes = std::uint64_t{256} << 10;
  while (position_ < std::min(offset, nbytes_))
    read(static_cast<std::size_t>(std::min(offset - position_, kPieceBytes)));
}

std::string BlobReader::read(std::size_t most) {
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(most, nbytes_ - position_));
  std::string piece =
      isFile_ ? readFile(wanted) : content_.substr(std::min<std::size_t>(position_, content_.size()), wanted);
  if (piece.size() != wanted)
    fail("only " + std::to_string(position_ + piece.size()) + " of its " + std::to_string(nbytes_) +
         " bytes are there");
  sum_.add(piece);
  position_ += piece.size();
  if (position_ == nbytes_ && !isChecked_)
    expectWhole();
  return piece;
}

std::string BlobReader::readFile(std::size_t wanted) {
  if (!file_)
    fail("its file is gone");
  std::string piece(wanted, '\0');
  std::size_t done = 0;
  while (done < wanted) {
    const ssize_t got = ::pread(file_.get(), piece.data() + done, wanted - done, static_cast<off_t>(position_ + done));
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      fail("its file cannot be read: " + std::generic_category().message(errno));
    if (got == 0)
      break;
    done += static_cast<std::size_t>(got);
  }
  piece.resize(done);
  return piece;
}

void BlobReader::expectWhole() {
  isChecked_ = true;
  if (sum_.digest() != digest_)
    fail("its bytes have changed");
}

void BlobReader::fail(const std::string& what) {
  if (givesUpDamaged_)
    store_.takeOut([this](Database&) { return std::vector<Digest>{digest_}; });
  throw Exception<parallel::store::BlobDamaged>(digest_.text(), what);
}

// --- Removal ---

std::uint64_t BlobStore::takeOut(const std::function<std::vector<Digest>(Database&)>& choose) {
  std::vector<Digest> chosen;
  Quota::Use freed;
  commits_.writeAndWait([&](Group& group) {
    freed = {};
    chosen = choose(group.database);
    Statement erase(group.database, "DELETE FROM blobs WHERE digest = ? RETURNING nbytes, content IS NULL");
    for (const Digest& digest : chosen) {
      for (erase.bindBytes(digest.bytes()); erase.step();) {
        freed.bytes += erase.number();
        freed.files += erase.number();
      }
    }
  });
  // On the thread of the commits, and only while there is still no row: the blob may have been put again meanwhile.
  std::vector<fs::path> removed;
  commits_.ask([&](Database& database) {
    for (const Digest& digest : chosen) {
      const fs::path path = pathOf(digest);
      if (hasRow(database, digest) || !fs::exists(path))
        continue;
      removed.push_back(uploads_ / (std::string(kRemovedMark) + digest.text()));
      files_.rename(path, removed.back());
    }
    return true;
  });
  for (const fs::path& path : removed)  // which may take long
    files_.remove(path);
  quota_.give(freed);
  return chosen.size();
}

BlobStore::Collected BlobStore::collect(WallTime now) {
  constexpr std::uint64_t kAtOnce = 1000;  // so that nobody waits long for a commit
  Collected collected;
  const auto choose = [&](Database& database) {
    Statement find(database,
                   "SELECT digest FROM blobs WHERE used < ? AND NOT EXISTS "
                   "(SELECT 1 FROM pins WHERE pins.digest = blobs.digest) ORDER BY used LIMIT ?");
    find.bind(inMilliseconds(now - kKeptUnused)).bind(kAtOnce);
    return digestsOf(find);
  };
  for (std::uint64_t count = kAtOnce; count == kAtOnce; collected.blobs += count)
    count = takeOut(choose);
  forEachFile(uploads_, [&](const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 ||
        std::chrono::seconds(status.st_mtime) >= (now - kUploadKept).time_since_epoch())
      return;
    dropUpload(path);
    ++collected.uploads;
  });
  return collected;
}

std::uint64_t BlobStore::sweepFiles() {
  std::vector<Digest> present;
  forEachFile(blobs_, [&](const fs::path& path) {
    if (const auto digest = Digest::fromText(path.parent_path().filename().string() + path.filename().string()))
      present.push_back(*digest);
  });
  return takeOut([&](Database& database) {
    std::vector<Digest> stray;
    std::copy_if(present.begin(), present.end(), std::back_inserter(stray),
                 [&](const Digest& digest) { return !hasRow(database, digest); });
    return stray;
  });
}

std::vector<BlobStore::Damage> BlobStore::check() {
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20;
  const std::vector<Digest> all = commits_.askCommitted([](Database& database) {
    Statement find(database, "SELECT digest FROM blobs ORDER BY digest");
    return digestsOf(find);
  });
  std::vector<Damage> damage;
  for (const Digest& digest : all) {
    try {
      const auto reader = openFor(digest, false);
      while (!reader->read(kPieceBytes).empty()) {
      }
    } catch (const Exception<parallel::store::NoSuchBlob>&) {
      // Collected meanwhile.
    } catch (const Exception<parallel::store::BlobDamaged>& damaged) {
      damage.push_back({digest, damaged.what()});
    }
  }
  return damage;
}

}  // namespace parallel::scheduler::store
