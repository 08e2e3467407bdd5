#include "cli/ContentCheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>
#include <vector>

#include "cli/CliError.h"

namespace zks {
namespace {

constexpr std::size_t kPiece = 65536;

void readAll(int file, ContentCheck& check) {
  std::vector<char> piece(kPiece);
  for (;;) {
    const ssize_t got = ::read(file, piece.data(), piece.size());
    if (got > 0)
      check.add({piece.data(), static_cast<std::size_t>(got)});
    else if (got == 0 || errno != EINTR)
      return;
  }
}

// A pipe whose writing end has a name, and a thread that feeds the check from it.
class CheckingPipe {
 public:
  explicit CheckingPipe(ContentCheck& check) {
    if (::pipe2(ends_, O_CLOEXEC) != 0)
      throw CliError("cannot make a pipe: " + systemReason(errno));
    reader_ = std::thread([file = ends_[0], &check] { readAll(file, check); });
  }

  ~CheckingPipe() {
    ::close(ends_[1]);  // the reader's end of file
    reader_.join();
    ::close(ends_[0]);
  }

  CheckingPipe(const CheckingPipe&) = delete;
  CheckingPipe& operator=(const CheckingPipe&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(ends_[1]); }

 private:
  int ends_[2];
  std::thread reader_;
};

}  // namespace

ContentCheck::ContentCheck(const std::optional<std::string>& original) : compares_(original.has_value()) {
  if (original)
    original_.open(*original, std::ios::binary);
}

void ContentCheck::add(std::span<const char> bytes) {
  digest_.add(bytes.data(), bytes.size());
  if (!compares_ || !same_)
    return;
  std::vector<char> expected(bytes.size());
  original_.read(expected.data(), static_cast<std::streamsize>(expected.size()));
  same_ = static_cast<std::size_t>(original_.gcount()) == bytes.size() &&
          std::equal(bytes.begin(), bytes.end(), expected.begin());
}

bool ContentCheck::isSame() {
  if (compares_ && same_)
    same_ = original_.is_open() && original_.peek() == std::ifstream::traits_type::eof();
  return same_;
}

void takeForCheck(parallel::toolbox::Reply& reply, ContentCheck& check) {
  const CheckingPipe pipe(check);
  reply.takeFile(pipe.path());
}

void checkFile(const std::string& path, ContentCheck& check) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0)
    throw CliError("cannot read the file \"" + path + "\": " + systemReason(errno));
  readAll(file, check);
  ::close(file);
}

}  // namespace zks
