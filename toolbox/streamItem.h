// Items of a request that are read to their end from what does not know its size: a pipe, a terminal, a file of /proc.
#pragma once

#include <string>

#include "platform/files/UniqueFd.h"
#include "toolbox/Item.h"

namespace parallel::spf::transport {
class ByteSink;
}

namespace parallel::toolbox {

// Read once, when the request is made. `name` stands for it in errors: the file's path, or "standard input".
// Errors: `CannotReadFile`, when the request is made. On an interpreter thread a user interrupt ends the wait for bytes.
Item streamItem(::files::UniqueFd file, const std::string& name);

// What such an item does: everything from the descriptor into the sink.
void copyToEnd(int file, const std::string& name, spf::transport::ByteSink& sink);

}  // namespace parallel::toolbox
