#include "platform/digest/Sha256.h"

#include <openssl/evp.h>

#include <algorithm>
#include <new>

namespace parallel::digest {

namespace {

constexpr std::string_view kDigits = "0123456789abcdef";
constexpr unsigned kDigitBits = 4;
constexpr unsigned kDigitMask = 0xF;

// What OpenSSL refuses here is memory only.
void require(int outcome) {
  if (outcome != 1)
    throw std::bad_alloc();
}

}  // namespace

std::optional<Digest> Digest::fromBytes(std::string_view bytes) {
  if (bytes.size() != kBytes)
    return std::nullopt;
  Digest digest;
  std::copy(bytes.begin(), bytes.end(), digest.bytes_.begin());
  return digest;
}

std::optional<Digest> Digest::fromText(std::string_view text) {
  if (text.size() != 2 * kBytes)
    return std::nullopt;
  Digest digest;
  for (std::size_t i = 0; i < kBytes; ++i) {
    const std::size_t high = kDigits.find(text[2 * i]);
    const std::size_t low = kDigits.find(text[2 * i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos)
      return std::nullopt;
    digest.bytes_.at(i) = static_cast<char>((high << kDigitBits) | low);
  }
  return digest;
}

Digest Digest::of(std::string_view bytes) {
  Sha256 sum;
  sum.add(bytes);
  return sum.digest();
}

std::string Digest::text() const {
  std::string text;
  text.reserve(2 * kBytes);
  for (const char byte : bytes_) {
    const auto value = static_cast<unsigned char>(byte);
    text += kDigits[value >> kDigitBits];
    text += kDigits[value & kDigitMask];
  }
  return text;
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  require(context_ ? 1 : 0);
  require(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr));
}

void Sha256::Free::operator()(evp_md_ctx_st* context) const noexcept {
  EVP_MD_CTX_free(context);
}

void Sha256::add(std::string_view bytes) {
  require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

Digest Sha256::digest() {
  std::array<unsigned char, Digest::kBytes> value{};
  require(EVP_DigestFinal_ex(context_.get(), value.data(), nullptr));
  return *Digest::fromBytes({reinterpret_cast<const char*>(value.data()), value.size()});
}

}  // namespace parallel::digest
