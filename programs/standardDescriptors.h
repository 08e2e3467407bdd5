// For programs that may be started without standard streams.
#pragma once

namespace programs {

// Opens those of the descriptors 0, 1 and 2 that are closed, so that no file and no socket gets their number and with
// it what is said on a standard stream. Reading gives nothing there, and writing fails.
//
// To be called in main(), which links it in: it then runs before that too, and before any library is initialised, since
// some open descriptors for themselves as they are.
void occupyStandardDescriptors() noexcept;

}  // namespace programs
