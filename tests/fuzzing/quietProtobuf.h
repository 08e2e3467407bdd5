// Keeps protobuf from writing a line for every input that is not a message.
#pragma once

#include <google/protobuf/stubs/common.h>

inline void quietProtobuf() {
#if GOOGLE_PROTOBUF_VERSION < 4022000  // later ones write through a logging library that has no such switch
  static const auto before = google::protobuf::SetLogHandler(nullptr);
  static_cast<void>(before);
#endif
}
