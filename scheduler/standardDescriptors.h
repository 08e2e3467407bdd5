// For programs that may be started without standard streams.
#pragma once

namespace parallel::scheduler {

// Opens those of the descriptors 0, 1 and 2 that are closed, so that no file and no socket gets their number and with
// it what is said on a standard stream. Reading gives nothing there, and writing fails. To be called first in main().
void occupyStandardDescriptors() noexcept;

}  // namespace parallel::scheduler
