#include "cli/ContentCheck.h"

#include <algorithm>
#include <vector>

namespace zks {

ContentCheck::ContentCheck(const std::optional<std::string>& original, parallel::spf::transport::ByteSink* next)
    : next_(next), compares_(original.has_value()) {
  if (original)
    original_.open(*original, std::ios::binary);
}

void ContentCheck::write(const std::byte* data, std::size_t nbytes) {
  digest_.add(data, nbytes);
  if (compares_ && same_)
    compare(reinterpret_cast<const char*>(data), nbytes);
  if (next_ != nullptr)
    next_->write(data, nbytes);
}

void ContentCheck::compare(const char* data, std::size_t nbytes) {
  std::vector<char> expected(nbytes);
  original_.read(expected.data(), static_cast<std::streamsize>(nbytes));
  same_ = static_cast<std::size_t>(original_.gcount()) == nbytes && std::equal(expected.begin(), expected.end(), data);
}

bool ContentCheck::isSame() {
  if (compares_ && same_)
    same_ = original_.is_open() && original_.peek() == std::ifstream::traits_type::eof();
  return same_;
}

}  // namespace zks
