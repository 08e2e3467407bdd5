#include "scheduler/store/Store.h"

#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/store/schema.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDatabase = "store.db";
// "zks" and a format of its own: that the file is a store at all.
constexpr std::int64_t kApplication = 0x7A6B7301;

// File systems on which the write-ahead log's shared memory does not work, by their numbers in statfs(2).
bool isOnNetwork(const fs::path& folder) {
  constexpr std::array<std::uint32_t, 11> kNetworks{
      0x6969,      // NFS
      0xFF534D42,  // CIFS
      0xFE534D42,  // SMB2
      0x517B,      // SMB
      0x00C36400,  // Ceph
      0x0BD00BD0,  // Lustre
      0x47504653,  // GPFS
      0x19830326,  // BeeGFS
      0x5346414F,  // AFS
      0x01021997,  // 9P
      0x65735546,  // FUSE: it may be anything
  };
  struct statfs status {};
  if (::statfs(folder.c_str(), &status) != 0)
    return false;
  const auto type = static_cast<std::uint32_t>(status.f_type);
  return std::find(kNetworks.begin(), kNetworks.end(), type) != kNetworks.end();
}

void configure(Database& database, bool isNew, bool isOnNetwork, bool isDurable) {
  if (isOnNetwork)
    database.run("PRAGMA locking_mode = EXCLUSIVE");  // before the log is opened, which then needs no shared memory
  if (isNew)
    database.run("PRAGMA auto_vacuum = INCREMENTAL; PRAGMA application_id = " + std::to_string(kApplication));
  if (database.text("PRAGMA journal_mode = WAL") != "wal")
    throw Exception<parallel::store::StoreUnusable>(database.path().parent_path().string(),
                                                    "its file system takes no write-ahead log");
  database.run(std::string("PRAGMA synchronous = ") + (isDurable ? "FULL" : "OFF") +
               "; PRAGMA foreign_keys = ON; PRAGMA cell_size_check = ON; PRAGMA journal_size_limit = 67108864");
}

std::unique_ptr<Database> openDatabase(const fs::path& folder, const StoreOptions& options) {
  const fs::path path = folder / kDatabase;
  const bool isNew = !fs::exists(path);
  auto database = std::make_unique<Database>(path, Database::Options{isNew, options.vfs});
  // A store whose making was cut off has no format yet.
  const bool isEmpty = database->number("SELECT count(*) FROM sqlite_schema") == 0;
  if (!isEmpty && database->number("PRAGMA application_id") != kApplication)
    throw Exception<parallel::store::StoreUnusable>(folder.string(), "its file store.db is another program's database");
  configure(*database, isEmpty, isOnNetwork(folder), options.isDurable);
  migrate(*database);
  return database;
}

}  // namespace

Store::Store(const fs::path& folder, const StoreOptions& options) try
    : folder_(folder),
      files_(options.files != nullptr ? *options.files
             : options.isDurable      ? systemFiles()
                                      : unsyncedFiles()),
      reserve_(files_, folder / "reserve", options.reserveBytes),
      quota_(folder, options.quota) {
  files_.makeFolder(folder_);
  lock_ = std::make_unique<StoreLock>(folder_);
  database_ = openDatabase(folder_, options);
  files_.syncFolder(folder_);
  reserve_.take();
  const GroupCommit::Failed failed = options.failed ? options.failed : [](const std::string&) {};
  commits_ = std::make_unique<GroupCommit>(*database_, files_, reserve_, failed);
  ledger_ = std::make_unique<LedgerStore>(*database_, *commits_);
  blobs_ = std::make_unique<BlobStore>(folder_, files_, *commits_, quota_);
} catch (const std::system_error& failure) {
  throw Exception<parallel::store::StoreUnusable>(folder.string(), failure.what());
}

// The commits end before what they use.
Store::~Store() {
  commits_.reset();
}

void Store::tidy(WallTime now) {
  constexpr int kPagesAtOnce = 4096;
  blobs_->collect(now);
  commits_->writeAndWait([](GroupCommit::Group& group) {
    Statement shrink(group.database, "PRAGMA incremental_vacuum(" + std::to_string(kPagesAtOnce) + ")");
    shrink.run();
  });
  reserve_.take();
}

std::vector<std::string> Store::check() {
  std::vector<std::string> faults = commits_->askCommitted([](Database& database) {
    std::vector<std::string> found;
    Statement check(database, "PRAGMA integrity_check");
    while (check.step()) {
      std::string fault = check.text();
      if (fault != "ok")
        found.push_back(std::move(fault));
    }
    return found;
  });
  for (const BlobStore::Damage& damage : blobs_->check())
    faults.push_back(damage.what);
  return faults;
}

void Store::backUp(const fs::path& file) {
  commits_->askCommitted([&](Database& database) {
    Statement copy(database, "VACUUM INTO ?");
    const std::string name = file.string();
    copy.bind(name).run();
    return true;
  });
}

}  // namespace parallel::scheduler::store
