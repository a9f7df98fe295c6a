// What every benchmark shares: options, placement, interleaved measuring and
// the printed result.
//
// Figures of a virtual machine drift by more than what is to be told apart, so
// contestants take turns and only medians of the same run are compared.
#ifndef ZU_BENCH_HARNESS_H_
#define ZU_BENCH_HARNESS_H_

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zu::bench {

struct Options {
  int rounds = 9;
  std::string json_file;          // Empty: none is written.
  std::vector<std::string> only;  // Empty: every contestant.

  [[nodiscard]] bool Wants(std::string_view contestant) const;
};

// Reads --rounds N, --json FILE, --only NAME (repeatable) and --help, which
// lists `contestants`. nullopt: the program is to end with `exit_code`.
std::optional<Options> ParseOptions(int argc, char** argv,
                                    std::string_view summary,
                                    const std::vector<std::string>& contestants,
                                    int& exit_code);

// Binds this process, and all that it starts from here on, to the last
// processor that it may use (the first one usually takes the interrupts).
// Returns the processor's number, -1 on failure.
int PinToOneProcessor();

// The middle value; the mean of the two in the middle when they are even in
// number. `values` must not be empty.
double Median(std::vector<double> values);

// Rows are contestants, columns are settings; a cell keeps its samples.
class Table {
 public:
  Table(std::string title, std::string unit, std::vector<std::string> rows,
        std::vector<std::string> columns);

  // One measurement of a cell; nullopt when it failed.
  using Sample =
      std::function<std::optional<double>(size_t row, size_t column)>;

  // Takes one sample a round of every cell. Within a column the rows take
  // turns, each round beginning with another one. False when a sample failed;
  // the table is then not to be used.
  [[nodiscard]] bool Measure(int rounds, const Sample& sample);

  [[nodiscard]] double MedianOf(size_t row, size_t column) const;

  // Prints the medians, each with its ratios to those of the baselines (rows;
  // absent ones are left out) in the same column.
  void Print(const std::vector<std::optional<size_t>>& baselines) const;

  [[nodiscard]] std::string ToJson() const;

 private:
  [[nodiscard]] const std::vector<double>& Cell(size_t row,
                                                size_t column) const;

  std::string title_;
  std::string unit_;
  std::vector<std::string> rows_;
  std::vector<std::string> columns_;
  std::vector<std::vector<double>> cells_;  // Row by row.
};

enum class Bound { kAtMost, kAtLeast };

// A figure that the product has to reach.
struct Goal {
  std::string text;
  Bound bound = Bound::kAtMost;
  double limit = 0;
  // What was measured, and in which setting (may be empty). The worst counts.
  struct Figure {
    std::string setting;
    double value = 0;
  };
  std::vector<Figure> figures;

  [[nodiscard]] const Figure& Worst() const;
  [[nodiscard]] bool Met() const;
};

void PrintGoals(const std::vector<Goal>& goals);

// Writes all samples and the goals. False, with a message on standard error,
// when the file cannot be written.
[[nodiscard]] bool WriteJson(const std::string& file, std::string_view bench,
                             const std::vector<const Table*>& tables,
                             const std::vector<Goal>& goals);

}  // namespace zu::bench

#endif  // ZU_BENCH_HARNESS_H_
