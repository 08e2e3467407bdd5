// Takes the next item of a reply into a file that appears when it is whole.
#pragma once

#include "cli/AtomicFile.h"
#include "toolbox/Reply.h"

namespace zks {

// After a failure that lies with the file, such as a full disk, the error names the file and the system's reason; the
// item's own error tells neither.
void takeToFile(parallel::toolbox::Reply& reply, const AtomicFile& file);

}  // namespace zks
