// The mark that the processes of one task carry in their environment, by which those that left its process group are
// found.
//
//     ZKS_MARK=4026531836.1234.567890.17
//
// The namespace of process numbers, the number of the process that runs the task, the tick at which that one started (a
// number is given anew one day), and which of its tasks it is.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace parallel::execution {

class AttemptMark {
 public:
  static constexpr const char* kVariable = "ZKS_MARK";

  // Another one each time. Threads: any.
  static AttemptMark make();
  // None when the process bears none, or what it bears is no mark.
  static std::optional<AttemptMark> ofProcess(pid_t pid);
  static std::optional<AttemptMark> parse(std::string text);

  const std::string& text() const noexcept { return text_; }
  // Made by this process.
  bool isOurs() const;
  // Whether the process that made it has ended. False for one that cannot be seen from here.
  bool isOfTheDead() const;

  bool operator==(const AttemptMark&) const = default;

 private:
  AttemptMark(std::string text, std::string space, pid_t owner, std::uint64_t ownerStart)
      : text_(std::move(text)), space_(std::move(space)), owner_(owner), ownerStart_(ownerStart) {}

  std::string text_;
  std::string space_;
  pid_t owner_;
  std::uint64_t ownerStart_;
};

}  // namespace parallel::execution
