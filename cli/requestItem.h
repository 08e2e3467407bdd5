// The item of a request that an argument of the command line asks for.
#pragma once

#include "cli/CommandLine.h"
#include "toolbox/Item.h"

namespace zks {

// `value` is what readItem made of the argument.
parallel::toolbox::Item requestItem(const ItemArgument& argument, const qxArray* value);

}  // namespace zks
