#include "scheduler/store/sqlite/testing/FaultyVfs.h"

#include <sqlite3.h>

#include <cerrno>
#include <string>

namespace parallel::scheduler::store::testing {

namespace {

FaultyDisk* theDisk = nullptr;
sqlite3_vfs* theUsual = nullptr;
sqlite3_vfs theVfs{};
sqlite3_io_methods theMethods{};

// In front of the usual file, in the memory that SQLite gives.
struct OpenFile {
  sqlite3_file base;
  const char* path;  // SQLite keeps it until the file is closed
};

OpenFile* ours(sqlite3_file* file) {
  return reinterpret_cast<OpenFile*>(file);
}

sqlite3_file* usual(sqlite3_file* file) {
  return reinterpret_cast<sqlite3_file*>(ours(file) + 1);
}

// Passes a call to the usual file.
template <auto method, class... Arguments>
int pass(sqlite3_file* file, Arguments... arguments) {
  return (usual(file)->pMethods->*method)(usual(file), arguments...);
}

bool isTracked(sqlite3_file* file) {
  return ours(file)->path != nullptr;  // temporary files have no name
}

int write(sqlite3_file* file, const void* bytes, int nbytes, sqlite3_int64 offset) {
  if (const int error = theDisk->step(); error != 0)
    return error == ENOSPC ? SQLITE_FULL : SQLITE_IOERR_WRITE;
  const int code = pass<&sqlite3_io_methods::xWrite>(file, bytes, nbytes, offset);
  if (code == SQLITE_OK && isTracked(file))
    theDisk->written(ours(file)->path, static_cast<std::uint64_t>(offset),
                     {static_cast<const char*>(bytes), static_cast<std::size_t>(nbytes)});
  return code;
}

int truncate(sqlite3_file* file, sqlite3_int64 nbytes) {
  if (theDisk->step() != 0)
    return SQLITE_IOERR_TRUNCATE;
  const int code = pass<&sqlite3_io_methods::xTruncate>(file, nbytes);
  if (code == SQLITE_OK && isTracked(file))
    theDisk->truncated(ours(file)->path, static_cast<std::uint64_t>(nbytes));
  return code;
}

// The disk that forgets is ours: the real one need not sync.
int sync(sqlite3_file* file, int) {
  if (theDisk->step() != 0)
    return SQLITE_IOERR_FSYNC;
  if (isTracked(file))
    theDisk->synced(ours(file)->path);
  return SQLITE_OK;
}

// Memory-mapped reads are left out, so that every access is a call.
int fetch(sqlite3_file*, sqlite3_int64, int, void** page) {
  *page = nullptr;
  return SQLITE_OK;
}

int unfetch(sqlite3_file*, sqlite3_int64, void*) {
  return SQLITE_OK;
}

int open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
  file->pMethods = nullptr;
  ours(file)->path = name;
  if (name != nullptr)
    theDisk->willChange(name);
  const int code = theUsual->xOpen(theUsual, name, usual(file), flags, outFlags);
  if (code == SQLITE_OK)
    file->pMethods = &theMethods;
  return code;
}

int erase(sqlite3_vfs*, const char* name, int syncsFolder) {
  if (theDisk->step() != 0)
    return SQLITE_IOERR_DELETE;
  const int code = theUsual->xDelete(theUsual, name, syncsFolder);
  if (code == SQLITE_OK)
    theDisk->removed(name);
  return code;
}

}  // namespace

FaultyVfs::FaultyVfs(FaultyDisk& disk) {
  theDisk = &disk;
  theUsual = sqlite3_vfs_find(nullptr);
  theVfs = *theUsual;
  theVfs.zName = name();
  theVfs.szOsFile += static_cast<int>(sizeof(OpenFile));
  theVfs.xOpen = open;
  theVfs.xDelete = erase;
  theMethods.iVersion = 3;
  theMethods.xClose = pass<&sqlite3_io_methods::xClose>;
  theMethods.xRead = pass<&sqlite3_io_methods::xRead, void*, int, sqlite3_int64>;
  theMethods.xWrite = write;
  theMethods.xTruncate = truncate;
  theMethods.xSync = sync;
  theMethods.xFileSize = pass<&sqlite3_io_methods::xFileSize, sqlite3_int64*>;
  theMethods.xLock = pass<&sqlite3_io_methods::xLock, int>;
  theMethods.xUnlock = pass<&sqlite3_io_methods::xUnlock, int>;
  theMethods.xCheckReservedLock = pass<&sqlite3_io_methods::xCheckReservedLock, int*>;
  theMethods.xFileControl = pass<&sqlite3_io_methods::xFileControl, int, void*>;
  theMethods.xSectorSize = pass<&sqlite3_io_methods::xSectorSize>;
  theMethods.xDeviceCharacteristics = pass<&sqlite3_io_methods::xDeviceCharacteristics>;
  theMethods.xShmMap = pass<&sqlite3_io_methods::xShmMap, int, int, int, void volatile**>;
  theMethods.xShmLock = pass<&sqlite3_io_methods::xShmLock, int, int, int>;
  theMethods.xShmBarrier = [](sqlite3_file* file) { usual(file)->pMethods->xShmBarrier(usual(file)); };
  theMethods.xShmUnmap = pass<&sqlite3_io_methods::xShmUnmap, int>;
  theMethods.xFetch = fetch;
  theMethods.xUnfetch = unfetch;
  sqlite3_vfs_register(&theVfs, 0);
}

FaultyVfs::~FaultyVfs() {
  sqlite3_vfs_unregister(&theVfs);
}

}  // namespace parallel::scheduler::store::testing
