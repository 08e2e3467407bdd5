// Takes the items of a reply one by one, prints a line for each and saves them where the user wants that.
//
// The line: number, kind, what it is, "crc32 ..." of its bytes where it has some, and its value where that is short.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/array/qxArray.h"
#include "toolbox/Reply.h"

namespace zks {

class ReplyPrinter {
 public:
  // An empty directory saves nothing. CliError when one cannot be written to.
  ReplyPrinter(parallel::toolbox::Reply& reply, std::string saveDirectory);

  // Each takes the next item; true unless it is another than `original` (null: none to compare with).
  bool showArray(const qxArray* original = nullptr);
  bool showMessage(const qxArray* original = nullptr);
  bool showPlain(const qxArray* original = nullptr);
  // A file goes to `path`, or else to the save directory under `name`, or is only looked at.
  bool showFile(const std::string& path, const std::string& name,
                const std::optional<std::string>& original = std::nullopt);

 private:
  bool print(const std::string& kind, const std::string& text, bool compared, bool same);
  std::string savedName(const char* extension) const;
  void saveArray(const qxArray* array) const;
  void saveBytes(const char* extension, std::string_view bytes) const;

  parallel::toolbox::Reply& reply_;
  std::string saveDirectory_;
};

}  // namespace zks
