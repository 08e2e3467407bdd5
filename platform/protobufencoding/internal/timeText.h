// Timestamps and durations as ProtoJSON writes them: "2024-02-29T12:00:00.000000001Z", "-1.500s".
// Units: seconds since 1970-01-01T00:00:00Z without leap seconds, or seconds of a duration; nanoseconds beside them.
//        A timestamp's nanoseconds count forward; a duration's have the sign of the whole.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace parallel::protobufencoding {

struct SecondsAndNanos {
  std::int64_t seconds = 0;
  std::int32_t nanos = 0;
  bool operator==(const SecondsAndNanos&) const = default;
};

// Nothing when the time has no text: a timestamp outside the years 1 to 9999, a duration over 10000 years, nanoseconds
// out of range or of the other sign. Fractions have 0, 3, 6 or 9 digits.
std::optional<std::string> formatTimestamp(SecondsAndNanos time);
std::optional<std::string> formatDuration(SecondsAndNanos duration);

// Nothing when the text is not of the form. Fractions may have 1 to 9 digits, timestamps an offset in place of Z.
std::optional<SecondsAndNanos> parseTimestamp(std::string_view text);
std::optional<SecondsAndNanos> parseDuration(std::string_view text);

}  // namespace parallel::protobufencoding
