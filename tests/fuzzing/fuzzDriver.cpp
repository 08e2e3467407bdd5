// main() of a fuzz target that is built without libFuzzer: FOO_fuzz CORPUS [INPUTS].
//
// Runs the target over every kept input, then over INPUTS mutations of them (20000 unless told), the same ones every
// time. An input that crashes the target, or keeps it for 20 seconds, is printed and left in the file FOO_fuzz-crash.
// Under AddressSanitizer an allocation of over 64 MiB fails too: inputs are small, so the code must have trusted a
// length in them.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes);
// There in sanitized builds only.
extern "C" [[gnu::weak]] void __sanitizer_set_death_callback(void (*callback)());
extern "C" [[gnu::weak]] int __sanitizer_install_malloc_and_free_hooks(void (*mallocHook)(const volatile void*,
                                                                                          std::size_t),
                                                                       void (*freeHook)(const volatile void*));

namespace {

using Input = std::vector<std::uint8_t>;

constexpr std::size_t kMaxInputBytes = 4096;
constexpr std::size_t kMaxAllocationBytes = std::size_t{64} << 20;
constexpr unsigned kSecondsPerInput = 20;

Input current;  // what the target is working on
std::string crashFile;

// Safe in a signal handler.
void say(const char* text, std::size_t nbytes) {
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, nbytes);
}

void reportInput() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  constexpr std::string_view kBefore = "\nfuzz: the input was ";
  say(kBefore.data(), kBefore.size());
  for (const std::uint8_t byte : current) {
    const std::array<char, 2> hex{kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    say(hex.data(), hex.size());
  }
  say("\n", 1);
  const int file = ::open(crashFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  [[maybe_unused]] const ssize_t written = ::write(file, current.data(), current.size());
  ::close(file);
}

extern "C" void dieOf(int /*signal*/) {
  reportInput();
  ::_exit(1);
}

extern "C" void refuseLargeAllocation(const volatile void*, std::size_t nbytes) {
  if (nbytes > kMaxAllocationBytes)
    std::abort();
}

extern "C" void ignoreFree(const volatile void*) {}

void watch() {
  for (const int signal : {SIGABRT, SIGALRM})
    std::signal(signal, dieOf);
  if (__sanitizer_set_death_callback != nullptr)
    __sanitizer_set_death_callback(reportInput);
  else
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE})
      std::signal(signal, dieOf);
  if (__sanitizer_install_malloc_and_free_hooks != nullptr)
    __sanitizer_install_malloc_and_free_hooks(refuseLargeAllocation, ignoreFree);
}

void run(const Input& input) {
  current = input;
  ::alarm(kSecondsPerInput);
  LLVMFuzzerTestOneInput(current.data(), current.size());
  ::alarm(0);
}

std::vector<Input> readCorpus(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  std::vector<Input> corpus;
  for (const auto& path : paths) {
    std::ifstream file(path, std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return corpus;
}

// Changes inputs at random: bytes, numbers at the borders of types, pieces cut out, doubled or taken from another
// input.
class Mutator {
 public:
  explicit Mutator(const std::vector<Input>& corpus) : corpus_(corpus) {}

  Input next() {
    Input input = any();
    for (std::size_t changes = 1 + below(6); changes > 0; --changes)
      change(input);
    input.resize(std::min(input.size(), kMaxInputBytes));
    return input;
  }

 private:
  std::size_t below(std::size_t bound) { return engine_() % bound; }
  const Input& any() { return corpus_[below(corpus_.size())]; }

  void change(Input& input) {
    const std::size_t at = below(input.size() + 1);
    switch (below(6)) {
      case 0:
        return flip(input, at);
      case 1:
        return overwrite(input, at);
      case 2:
        return cut(input, at);
      case 3:
        return insert(input, at, Input(1 + below(4), static_cast<std::uint8_t>(engine_())));
      case 4:
        return insert(input, at, piece(Input(input)));
      default:
        return insert(input, at, piece(any()));
    }
  }

  void flip(Input& input, std::size_t at) {
    if (at < input.size())
      input[at] ^= static_cast<std::uint8_t>(1U << below(8));
  }

  // A number of 1, 2, 4 or 8 equal bytes, but for the first or last.
  void overwrite(Input& input, std::size_t at) {
    const std::size_t nbytes = std::min(std::size_t{1} << below(4), input.size() - at);
    constexpr std::array<std::uint8_t, 5> kBytes{0x00, 0x01, 0x7F, 0x80, 0xFF};
    std::fill_n(input.begin() + static_cast<std::ptrdiff_t>(at), nbytes, kBytes[below(2) * 4]);
    if (nbytes > 0)
      input[below(2) == 0 ? at : at + nbytes - 1] = kBytes[below(kBytes.size())];
  }

  void cut(Input& input, std::size_t at) {
    const std::size_t nbytes = std::min(below(2) == 0 ? 1 + below(8) : input.size(), input.size() - at);
    const auto first = input.begin() + static_cast<std::ptrdiff_t>(at);
    input.erase(first, first + static_cast<std::ptrdiff_t>(nbytes));
  }

  void insert(Input& input, std::size_t at, const Input& what) {
    input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), what.begin(), what.end());
  }

  Input piece(const Input& of) {
    const std::size_t first = below(of.size() + 1);
    const std::size_t nbytes = below(std::min<std::size_t>(of.size() - first, 64) + 1);
    return {of.begin() + static_cast<std::ptrdiff_t>(first), of.begin() + static_cast<std::ptrdiff_t>(first + nbytes)};
  }

  const std::vector<Input>& corpus_;
  std::mt19937_64 engine_{1};
};

}  // namespace

int main(int argc, char** argv) try {
  crashFile = std::filesystem::path(argv[0]).filename().string() + "-crash";
  const std::vector<Input> corpus = readCorpus(argc > 1 ? argv[1] : ".");
  if (corpus.empty()) {
    std::cerr << "fuzz: no inputs in " << argv[1] << '\n';
    return 1;
  }
  watch();
  for (const Input& input : corpus)
    run(input);
  Mutator mutator(corpus);
  const long inputs = argc > 2 ? std::atol(argv[2]) : 20000;
  for (long i = 0; i < inputs; ++i)
    run(mutator.next());
  std::cout << corpus.size() << " kept inputs and " << inputs << " mutations passed\n";
  return 0;
} catch (const std::exception& error) {
  std::cerr << "fuzz: " << error.what() << '\n';
  return 1;
}
