// For tests: a store in a folder of its own, and waiting for what it keeps.
#pragma once

#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/files/testing/TemporaryDirectory.h"
#include "scheduler/store/Store.h"

namespace parallel::scheduler::store::testing {

inline constexpr std::chrono::seconds kDeadline{30};

// A moment so many minutes after a fixed one.
inline WallTime minute(int number) {
  return WallTime(std::chrono::hours(1000)) + std::chrono::minutes(number);
}

// Bytes that repeat with no power of two.
inline std::string patternOf(std::size_t nbytes, char seed = 0) {
  std::string text(nbytes, '\0');
  for (std::size_t i = 0; i < nbytes; ++i)
    text[i] = static_cast<char>((i * 7 + i / 251 + static_cast<unsigned char>(seed)) % 253);
  return text;
}

inline std::string contentOf(BlobStore& blobs, const Digest& digest, WallTime now = minute(0)) {
  constexpr std::size_t kPieceBytes = 50'000;
  const auto reader = blobs.open(digest, now);
  std::string content;
  for (std::string piece = reader->read(kPieceBytes); !piece.empty(); piece = reader->read(kPieceBytes))
    content += piece;
  return content;
}

// True once the changes are kept; false when they never will be.
inline bool keepAndWait(LedgerStore& ledger, ledger::Changes changes) {
  auto promise = std::make_shared<std::promise<void>>();
  auto kept = promise->get_future();
  ledger.keep(std::move(changes), [promise = std::move(promise)] { promise->set_value(); });
  try {
    kept.get();
    return true;
  } catch (const std::future_error&) {
    return false;
  }
}

// Opened by reopen(); the folder stays.
class OpenStore {
 public:
  explicit OpenStore(StoreOptions options = {}) : options_(std::move(options)) { reopen(); }

  void reopen() {
    store_.reset();
    store_.emplace(folder(), options_);
  }
  void close() { store_.reset(); }
  Store& operator*() { return *store_; }
  Store* operator->() { return &*store_; }
  std::filesystem::path folder() const { return place_.file("store"); }
  StoreOptions& options() { return options_; }

 private:
  files::testing::TemporaryDirectory place_;
  StoreOptions options_;
  std::optional<Store> store_;
};

}  // namespace parallel::scheduler::store::testing
