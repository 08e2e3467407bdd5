// Makes the items of a request of what the command line says.
//
// Errors: UsageError for a text that means nothing, CliError or the toolbox's own errors for files.
#pragma once

#include <string_view>

#include "cli/CommandLine.h"
#include "platform/array/qxArray.h"

namespace zks {

// The host value that stands for the item: an array, the struct of a message, a column of bytes, or for a file the
// text of its path.
qxArrayPtr readItem(const ItemArgument& argument);

// A message from JSON, as ProtoJSON maps it; the member "@type" gives the full name, with or without a URL before it.
qxArrayPtr readMessage(std::string_view json);

}  // namespace zks
