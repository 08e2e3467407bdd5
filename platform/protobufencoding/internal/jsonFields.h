// Field numbers of google.protobuf.Value.
#pragma once

namespace parallel::protobufencoding::json {

inline constexpr int kNull = 1;
inline constexpr int kNumber = 2;
inline constexpr int kString = 3;
inline constexpr int kBool = 4;
inline constexpr int kStruct = 5;
inline constexpr int kList = 6;

}  // namespace parallel::protobufencoding::json
