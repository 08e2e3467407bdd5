// Looks at the bytes of a file item as they come: counts and digests them, and compares them with the file that was
// sent.
#pragma once

#include <cstddef>
#include <fstream>
#include <optional>
#include <span>
#include <string>

#include "cli/Digest.h"
#include "toolbox/Reply.h"

namespace zks {

class ContentCheck {
 public:
  // Without an original everything is the same.
  explicit ContentCheck(const std::optional<std::string>& original);

  void add(std::span<const char> bytes);
  // Whether the bytes so far are all of the original's. Reads on in the original.
  bool isSame();
  const Digest& digest() const noexcept { return digest_; }

 private:
  Digest digest_;
  std::ifstream original_;
  bool compares_;
  bool same_ = true;
};

// Takes the next item without keeping it.
void takeForCheck(parallel::toolbox::Reply& reply, ContentCheck& check);
// Reads the file again that the item went to.
void checkFile(const std::string& path, ContentCheck& check);

}  // namespace zks
