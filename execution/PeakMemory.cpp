#include "execution/PeakMemory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "platform/files/UniqueFd.h"

namespace parallel::execution {

using files::UniqueFd;

std::uint64_t residentHighWaterMark(pid_t pid) noexcept {
  constexpr std::string_view kLabel = "VmHWM:";
  constexpr std::uint64_t kKibibyte = 1024;
  std::array<char, 32> path{};
  std::snprintf(path.data(), path.size(), "/proc/%d/status", static_cast<int>(pid));
  const UniqueFd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
  std::array<char, 4096> text{};
  const ssize_t nbytes = file ? ::read(file.get(), text.data(), text.size()) : 0;
  if (nbytes <= 0)
    return 0;
  std::string_view status(text.data(), static_cast<std::size_t>(nbytes));
  const std::size_t label = status.find(kLabel);
  if (label == std::string_view::npos)
    return 0;
  status.remove_prefix(label + kLabel.size());
  status.remove_prefix(std::min(status.find_first_not_of(" \t"), status.size()));
  std::uint64_t kibibytes = 0;
  std::from_chars(status.data(), status.data() + status.size(), kibibytes);
  return kibibytes * kKibibyte;
}

void PeakMemory::sample() noexcept {
  sampled_ = std::max(sampled_, residentHighWaterMark(pid_));
}

std::uint64_t PeakMemory::resolve(std::uint64_t kernelFigure) const noexcept {
  return kernelFigure > residentHighWaterMark(::getpid()) ? kernelFigure : sampled_;
}

}  // namespace parallel::execution
