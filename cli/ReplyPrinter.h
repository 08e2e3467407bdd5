// Takes the items of a reply one by one, prints a line for each and saves them where the user wants that.
//
// The line: number, kind, what it is, "crc32 ..." of its bytes where it has some, and its value where that is short.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "cli/ContentCheck.h"
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
  bool printFile(const std::string& name, ContentCheck& check);
  // A name that an item before has taken gets "item-N-" before it.
  std::string placeOf(std::size_t item, std::string name);
  void saveArray(const qxArray* array);
  void saveBytes(const char* extension, std::string_view bytes);
  bool saveFile(const std::string& place, const std::optional<std::string>& original);

  parallel::toolbox::Reply& reply_;
  std::string saveDirectory_;
  std::set<std::string> savedNames_;
};

}  // namespace zks
