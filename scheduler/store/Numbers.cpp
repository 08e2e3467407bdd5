#include "scheduler/store/Numbers.h"

namespace parallel::scheduler::store {

namespace {

constexpr unsigned kGroupBits = 7;
constexpr std::uint64_t kGroupMask = 0x7F;
constexpr unsigned char kMore = 0x80;

}  // namespace

NumbersWriter& NumbersWriter::add(std::uint64_t number) {
  for (; number > kGroupMask; number >>= kGroupBits)
    bytes_ += static_cast<char>(static_cast<unsigned char>(number & kGroupMask) | kMore);
  bytes_ += static_cast<char>(number);
  return *this;
}

NumbersWriter& NumbersWriter::addSigned(std::int64_t number) {
  const auto bits = static_cast<std::uint64_t>(number);
  return add(number < 0 ? ~(bits << 1) : bits << 1);
}

NumbersWriter& NumbersWriter::addText(std::string_view text) {
  add(text.size());
  bytes_ += text;
  return *this;
}

std::uint64_t NumbersReader::number() {
  constexpr unsigned kBits = 64;
  std::uint64_t number = 0;
  for (unsigned shift = 0;; shift += kGroupBits) {
    if (rest_.empty() || shift >= kBits)
      throw BadNumbers();
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    number |= static_cast<std::uint64_t>(byte & kGroupMask) << shift;
    if (byte < kMore)
      return number;
  }
}

std::int64_t NumbersReader::signedNumber() {
  const std::uint64_t folded = number();
  return static_cast<std::int64_t>((folded & 1) != 0 ? ~(folded >> 1) : folded >> 1);
}

std::string NumbersReader::text() {
  const std::uint64_t nbytes = number();
  if (nbytes > rest_.size())
    throw BadNumbers();
  std::string text(rest_.substr(0, nbytes));
  rest_.remove_prefix(nbytes);
  return text;
}

void NumbersReader::expectEnd() const {
  if (!rest_.empty())
    throw BadNumbers();
}

}  // namespace parallel::scheduler::store
