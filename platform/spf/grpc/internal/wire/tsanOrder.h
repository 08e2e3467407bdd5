// Tells ThreadSanitizer of the order that gRPC, which is not instrumented, keeps between two of our threads. Nothing in
// other builds.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define ZKS_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZKS_TSAN 1
#endif
#endif

#ifdef ZKS_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace agent::spf::grpc_transport::internal {

// Before the object is handed to gRPC.
inline void handedOver([[maybe_unused]] void* object) {
#ifdef ZKS_TSAN
  __tsan_release(object);
#endif
}

// Where gRPC hands it back, before its first use.
inline void takenOver([[maybe_unused]] void* object) {
#ifdef ZKS_TSAN
  __tsan_acquire(object);
#endif
}

}  // namespace agent::spf::grpc_transport::internal
