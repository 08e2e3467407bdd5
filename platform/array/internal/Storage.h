// What the shares of one value have in common: a body with a count of its shares.
//
// A share (struct qxArray) holds the shape and a StorageRef; the elements are in the storage. A share that wants to
// write asks for uniqueStorage, which copies the storage unless nobody else holds it.
// Threads: the count is atomic. The test for uniqueness is an acquire load, paired with the release of whoever gave up
// the share before, so that a writer sees everything that former holders did.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace qx_detail {

class DoomedStorages;

class Storage {
 public:
  Storage() = default;
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
  virtual ~Storage() = default;

  // A storage of its own with the same elements. Nested arrays are shared, not copied.
  virtual std::unique_ptr<Storage> clone() const = 0;

  bool isUnique() const noexcept { return shares_.load(std::memory_order_acquire) == 1; }
  virtual bool isWritable() const noexcept { return true; }

 private:
  friend class StorageRef;
  friend class DoomedStorages;

  void addShare() noexcept { shares_.fetch_add(1, std::memory_order_relaxed); }
  // True when that was the last share. The only share needs no atomic change: nobody is left who could make another.
  bool dropShare() noexcept { return isUnique() || shares_.fetch_sub(1, std::memory_order_acq_rel) == 1; }
  // Hands nested arrays over before destruction, so that deep nesting does not become deep recursion.
  virtual void surrenderElements(DoomedStorages& /*doomed*/) noexcept {}

  std::atomic<std::size_t> shares_{1};
  Storage* nextDoomed_ = nullptr;
};

// The storages whose last share is gone; destroys them one by one. Needs no memory.
class DoomedStorages {
 public:
  void dropShareOf(Storage* storage) noexcept;
  void destroyAll() noexcept;

 private:
  Storage* first_ = nullptr;
};

// One share of a storage, or empty.
class StorageRef {
 public:
  explicit StorageRef(std::unique_ptr<Storage> fresh) noexcept : storage_(fresh.release()) {}
  StorageRef(const StorageRef& other) noexcept : storage_(other.storage_) {
    if (storage_ != nullptr)
      storage_->addShare();
  }
  StorageRef(StorageRef&& other) noexcept : storage_(std::exchange(other.storage_, nullptr)) {}
  StorageRef& operator=(StorageRef other) noexcept {
    std::swap(storage_, other.storage_);
    return *this;
  }
  ~StorageRef() {
    if (storage_ != nullptr)
      drop();
  }

  Storage* get() const noexcept { return storage_; }
  Storage* release() noexcept { return std::exchange(storage_, nullptr); }

 private:
  void drop() noexcept;

  Storage* storage_;
};

}  // namespace qx_detail
