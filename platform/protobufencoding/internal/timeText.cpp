#include "platform/protobufencoding/internal/timeText.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace parallel::protobufencoding {

namespace {

constexpr std::int64_t kFirstSecond = -62135596800;  // 0001-01-01T00:00:00Z
constexpr std::int64_t kLastSecond = 253402300799;   // 9999-12-31T23:59:59Z
constexpr std::int64_t kMaxDurationSeconds = 315576000000;
constexpr std::int32_t kNanosPerSecond = 1'000'000'000;
constexpr std::int64_t kSecondsPerDay = 86400;

// "", ".5" as ".500", and so on.
std::string fraction(std::int32_t nanos) {
  if (nanos == 0)
    return "";
  std::string digits = std::to_string(nanos);
  digits.insert(0, 9 - digits.size(), '0');
  while (digits.ends_with("000"))
    digits.resize(digits.size() - 3);
  return "." + digits;
}

std::string padded(std::int64_t number, std::size_t width) {
  std::string digits = std::to_string(number);
  return digits.size() < width ? std::string(width - digits.size(), '0') + digits : digits;
}

// Reads a text from its front; each function says whether it found what it looks for.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }

  bool take(char wanted) {
    if (rest_.empty() || rest_.front() != wanted)
      return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool takeNumber(std::size_t minDigits, std::size_t maxDigits, std::int64_t& number) {
    const std::size_t count = digitsAhead();
    if (count < minDigits || count > maxDigits)
      return false;
    number = 0;
    for (const char digit : rest_.substr(0, count))
      number = number * 10 + (digit - '0');
    rest_.remove_prefix(count);
    return true;
  }

  // No fraction is 0.
  bool takeFraction(std::int32_t& nanos) {
    nanos = 0;
    if (!take('.'))
      return true;
    const std::size_t count = digitsAhead();
    std::int64_t digits = 0;
    if (!takeNumber(1, 9, digits))
      return false;
    for (std::size_t i = count; i < 9; ++i)
      digits *= 10;
    nanos = static_cast<std::int32_t>(digits);
    return true;
  }

 private:
  std::size_t digitsAhead() const {
    std::size_t count = 0;
    while (count < rest_.size() && rest_[count] >= '0' && rest_[count] <= '9')
      ++count;
    return count;
  }

  std::string_view rest_;
};

std::optional<std::int64_t> readDate(Reader& reader) {
  std::int64_t year = 0;
  std::int64_t month = 0;
  std::int64_t day = 0;
  if (!reader.takeNumber(4, 4, year) || !reader.take('-') || !reader.takeNumber(2, 2, month) || !reader.take('-') ||
      !reader.takeNumber(2, 2, day))
    return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(year)),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok())
    return std::nullopt;
  return std::chrono::sys_days(date).time_since_epoch().count() * kSecondsPerDay;
}

bool readHoursAndMinutes(Reader& reader, std::int64_t& seconds) {
  std::int64_t hours = 0;
  std::int64_t minutes = 0;
  if (!reader.takeNumber(2, 2, hours) || !reader.take(':') || !reader.takeNumber(2, 2, minutes))
    return false;
  seconds = hours * 3600 + minutes * 60;
  return hours < 24 && minutes < 60;
}

// Seconds that the offset adds to UTC.
std::optional<std::int64_t> readOffset(Reader& reader) {
  if (reader.take('Z'))
    return 0;
  const bool ahead = reader.take('+');
  std::int64_t offset = 0;
  if ((!ahead && !reader.take('-')) || !readHoursAndMinutes(reader, offset))
    return std::nullopt;
  return ahead ? offset : -offset;
}

}  // namespace

std::optional<std::string> formatTimestamp(SecondsAndNanos time) {
  if (time.seconds < kFirstSecond || time.seconds > kLastSecond || time.nanos < 0 || time.nanos >= kNanosPerSecond)
    return std::nullopt;
  const std::chrono::sys_seconds instant{std::chrono::seconds(time.seconds)};
  const auto midnight = std::chrono::floor<std::chrono::days>(instant);
  const std::chrono::year_month_day date{midnight};
  const std::int64_t second = (instant - midnight).count();
  return padded(static_cast<int>(date.year()), 4) + "-" + padded(static_cast<unsigned>(date.month()), 2) + "-" +
         padded(static_cast<unsigned>(date.day()), 2) + "T" + padded(second / 3600, 2) + ":" +
         padded(second / 60 % 60, 2) + ":" + padded(second % 60, 2) + fraction(time.nanos) + "Z";
}

std::optional<std::string> formatDuration(SecondsAndNanos duration) {
  const bool negative = duration.seconds < 0 || duration.nanos < 0;
  const bool mixed = negative && (duration.seconds > 0 || duration.nanos > 0);
  if (mixed || duration.seconds < -kMaxDurationSeconds || duration.seconds > kMaxDurationSeconds ||
      duration.nanos <= -kNanosPerSecond || duration.nanos >= kNanosPerSecond)
    return std::nullopt;
  return (negative ? "-" : "") + std::to_string(std::abs(duration.seconds)) + fraction(std::abs(duration.nanos)) + "s";
}

std::optional<SecondsAndNanos> parseTimestamp(std::string_view text) {
  Reader reader(text);
  const std::optional<std::int64_t> date = readDate(reader);
  std::int64_t minutes = 0;
  std::int64_t seconds = 0;
  SecondsAndNanos time;
  if (!date || !reader.take('T') || !readHoursAndMinutes(reader, minutes) || !reader.take(':') ||
      !reader.takeNumber(2, 2, seconds) || seconds > 59 || !reader.takeFraction(time.nanos))
    return std::nullopt;
  const std::optional<std::int64_t> offset = readOffset(reader);
  if (!offset || !reader.atEnd())
    return std::nullopt;
  time.seconds = *date + minutes + seconds - *offset;
  if (time.seconds < kFirstSecond || time.seconds > kLastSecond)
    return std::nullopt;
  return time;
}

std::optional<SecondsAndNanos> parseDuration(std::string_view text) {
  Reader reader(text);
  const bool negative = reader.take('-');
  SecondsAndNanos duration;
  if (!reader.takeNumber(1, 12, duration.seconds) || !reader.takeFraction(duration.nanos) || !reader.take('s') ||
      !reader.atEnd() || duration.seconds > kMaxDurationSeconds)
    return std::nullopt;
  if (negative)
    return SecondsAndNanos{-duration.seconds, -duration.nanos};
  return duration;
}

}  // namespace parallel::protobufencoding
