// Measures contenders side by side: interleaved repetitions, median with spread, ratios taken within one repetition.
//
// A shared machine drifts by tens of per cent over minutes, so two figures compare only when they were taken next to
// each other. Each repetition therefore runs every contender once, and a ratio is the median of the ratios within the
// repetitions rather than the ratio of two medians.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// One way of doing the work. `run` does it once and returns its figure (MiB/s, microseconds, ...).
struct Contender {
  std::string name;
  std::function<double()> run;
};

// The figures of one contender, one per repetition.
using Samples = std::vector<double>;

struct Spread {
  double median = 0;
  double min = 0;
  double max = 0;
};

inline Spread spreadOf(Samples samples) {
  if (samples.empty())
    return {};
  std::sort(samples.begin(), samples.end());
  const std::size_t half = samples.size() / 2;
  const double median = samples.size() % 2 == 1 ? samples[half] : (samples[half - 1] + samples[half]) / 2;
  return {median, samples.front(), samples.back()};
}

// The ratios samples[i] / base[i], of one repetition each.
inline Spread ratioOf(const Samples& samples, const Samples& base) {
  Samples ratios;
  for (std::size_t i = 0; i < std::min(samples.size(), base.size()); ++i)
    ratios.push_back(samples[i] / base[i]);
  return spreadOf(std::move(ratios));
}

// Runs every contender once per repetition and returns their samples in the contenders' order. Every other repetition
// goes backwards, so that no contender always follows the same neighbour. `warmUps` rounds are run and not counted. With
// ZKS_BENCH_ONCE in the environment every contender runs once: so the tests see that each benchmark works.
inline std::vector<Samples> measureInterleaved(const std::vector<Contender>& contenders, int repetitions = 5,
                                               int warmUps = 1) {
  if (std::getenv("ZKS_BENCH_ONCE") != nullptr) {
    repetitions = 1;
    warmUps = 0;
  }
  std::vector<Samples> samples(contenders.size());
  for (int round = -warmUps; round < repetitions; ++round) {
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      const std::size_t index = round % 2 == 0 ? i : contenders.size() - 1 - i;
      const double figure = contenders[index].run();
      if (round >= 0)
        samples[index].push_back(figure);
    }
  }
  return samples;
}

// Seconds that `work` takes.
inline double secondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double mebibytesPerSecond(std::size_t nbytes, double seconds) {
  return static_cast<double>(nbytes) / (1024.0 * 1024.0) / seconds;
}

// The value below which `fraction` of the samples lie, such as 0.99.
inline double percentile(Samples samples, double fraction) {
  if (samples.empty())
    return 0;
  const auto index =
      std::min(samples.size() - 1, static_cast<std::size_t>(fraction * static_cast<double>(samples.size())));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
  return samples[index];
}

inline std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// "1684 (1500-1700)"
inline std::string spreadText(const Spread& spread, int decimals) {
  return number(spread.median, decimals) + " (" + number(spread.min, decimals) + "-" + number(spread.max, decimals) +
         ")";
}

// A table in plain text with columns as wide as their widest cell; the first column is aligned left, the rest right.
class Table {
 public:
  explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }

  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

  void print(std::ostream& out) const {
    const std::vector<std::size_t> widths = columnWidths();
    for (std::size_t row = 0; row < rows_.size(); ++row) {
      printRow(out, rows_[row], widths);
      if (row == 0)
        out << std::string(lineWidth(widths), '-') << '\n';
    }
    out.flush();
  }

 private:
  std::vector<std::size_t> columnWidths() const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
      widths.resize(std::max(widths.size(), row.size()));
      for (std::size_t column = 0; column < row.size(); ++column)
        widths[column] = std::max(widths[column], row[column].size());
    }
    return widths;
  }

  static std::size_t lineWidth(const std::vector<std::size_t>& widths) {
    std::size_t width = 0;
    for (const std::size_t column : widths)
      width += column + 2;
    return width < 2 ? 0 : width - 2;
  }

  static void printRow(std::ostream& out, const std::vector<std::string>& row, const std::vector<std::size_t>& widths) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      const std::string padding(widths[column] - row[column].size(), ' ');
      out << (column == 0 ? "" : "  ") << (column == 0 ? row[column] + padding : padding + row[column]);
    }
    out << '\n';
  }

  std::vector<std::vector<std::string>> rows_;
};

// Rows "name | figure (spread) | ratio to the base (spread)"; the base is the contender at `baseIndex`.
inline Table tableOf(const std::string& title, const std::string& unit, const std::vector<Contender>& contenders,
                     const std::vector<Samples>& samples, std::size_t baseIndex, int decimals = 0) {
  Table table({title, unit, "ratio to " + contenders[baseIndex].name});
  for (std::size_t i = 0; i < contenders.size(); ++i)
    table.add({contenders[i].name, spreadText(spreadOf(samples[i]), decimals),
               i == baseIndex ? "1" : spreadText(ratioOf(samples[i], samples[baseIndex]), 2)});
  return table;
}

}  // namespace bench
