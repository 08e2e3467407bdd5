// Durations of messages and of the clock, one into the other.
#pragma once

#include <google/protobuf/duration.pb.h>

#include <chrono>

namespace parallel::scheduler {

// Whether the fields are in the ranges that the message type's own definition sets, and the whole is above zero.
bool isPositiveDuration(const google::protobuf::Duration& duration);

// Clamped to what nanoseconds can count (292 years).
std::chrono::nanoseconds fromMessage(const google::protobuf::Duration& duration);
google::protobuf::Duration toMessage(std::chrono::nanoseconds duration);

}  // namespace parallel::scheduler
