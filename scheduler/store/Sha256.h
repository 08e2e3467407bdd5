// The names of blobs are SHA-256 digests.
#pragma once

#include "platform/digest/Sha256.h"

namespace parallel::scheduler::store {

using digest::Digest;
using digest::Sha256;

}  // namespace parallel::scheduler::store
