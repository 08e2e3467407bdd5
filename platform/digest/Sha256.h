// SHA-256 of bytes that come piece by piece, and its value, which is the name of a blob. OpenSSL is included in Sha256.cpp
// alone.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace parallel::digest {

class Digest {
 public:
  static constexpr std::size_t kBytes = 32;

  Digest() = default;
  // Of `kBytes` bytes; none for another number.
  static std::optional<Digest> fromBytes(std::string_view bytes);
  // Of 64 hexadecimal digits in lower case.
  static std::optional<Digest> fromText(std::string_view text);
  static Digest of(std::string_view bytes);

  std::string_view bytes() const noexcept { return {bytes_.data(), bytes_.size()}; }
  // "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"
  std::string text() const;

  auto operator<=>(const Digest&) const = default;

 private:
  std::array<char, kBytes> bytes_{};
};

// Threads: one at a time.
class Sha256 {
 public:
  Sha256();

  void add(std::string_view bytes);
  // Once, at the end.
  Digest digest();

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const noexcept;
  };
  std::unique_ptr<evp_md_ctx_st, Free> context_;
};

}  // namespace parallel::digest
