#include "cli/takeToFile.h"

#include "platform/interrupt/utInterruptState.h"

namespace zks {

void takeToFile(parallel::toolbox::Reply& reply, const AtomicFile& file) {
  try {
    reply.takeFile(file.temporaryPath());
  } catch (const Corvane::System::InterruptException&) {
    throw;
  } catch (...) {
    utInterruptState::ThrowIfInterruptPending();
    file.checkWritable();
    throw;
  }
}

}  // namespace zks
