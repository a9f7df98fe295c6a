#include "harness.h"

#include <getopt.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

namespace zu::bench {
namespace {

[[gnu::format(printf, 1, 2)]] std::string Text(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

// Three significant digits; whole numbers from 100 on.
std::string Number(double value) {
  if (value >= 99.95) return Text("%.0f", value);
  return Text(value >= 9.995 ? "%.1f" : "%.2f", value);
}

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

}  // namespace

bool Options::Wants(std::string_view contestant) const {
  return only.empty() ||
         std::find(only.begin(), only.end(), contestant) != only.end();
}

std::optional<Options> ParseOptions(int argc, char** argv,
                                    std::string_view summary,
                                    const std::vector<std::string>& contestants,
                                    int& exit_code) {
  static constexpr option kOptions[] = {
      {"help", no_argument, nullptr, 'h'},
      {"json", required_argument, nullptr, 'j'},
      {"only", required_argument, nullptr, 'o'},
      {"rounds", required_argument, nullptr, 'r'},
      {nullptr, 0, nullptr, 0}};
  Options options;
  exit_code = 2;
  for (int c; (c = ::getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (c == 'h') {
      std::printf("%.*s\n\n", static_cast<int>(summary.size()), summary.data());
      std::puts(
          "  --rounds N    interleaved rounds (default 9)\n"
          "  --only NAME   measure only this one; repeatable. Known names:");
      for (const std::string& name : contestants) {
        std::printf("                  %s\n", name.c_str());
      }
      std::puts("  --json FILE   also write every sample and the goals there");
      exit_code = 0;
      return std::nullopt;
    }
    if (c == 'j') {
      options.json_file = optarg;
    } else if (c == 'o') {
      if (std::find(contestants.begin(), contestants.end(), optarg) ==
          contestants.end()) {
        std::fprintf(stderr, "%s: no contestant named \"%s\"\n", argv[0],
                     optarg);
        return std::nullopt;
      }
      options.only.emplace_back(optarg);
    } else if (c == 'r') {
      char* end = nullptr;
      const long rounds = std::strtol(optarg, &end, 10);
      if (*end != '\0' || rounds < 1 || rounds > 1000) {
        std::fprintf(stderr, "%s: --rounds takes a number from 1 to 1000\n",
                     argv[0]);
        return std::nullopt;
      }
      options.rounds = static_cast<int>(rounds);
    } else {
      return std::nullopt;  // getopt has said what is wrong.
    }
  }
  if (optind != argc) {
    std::fprintf(stderr, "%s: unexpected argument \"%s\"\n", argv[0],
                 argv[optind]);
    return std::nullopt;
  }
  return options;
}

int PinToOneProcessor() {
  cpu_set_t allowed;
  if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) return -1;
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    return ::sched_setaffinity(0, sizeof one, &one) == 0 ? cpu : -1;
  }
  return -1;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  if (values.size() % 2 != 0) return values[middle];
  return (values[middle - 1] + values[middle]) / 2;
}

Table::Table(std::string title, std::string unit, std::vector<std::string> rows,
             std::vector<std::string> columns)
    : title_(std::move(title)),
      unit_(std::move(unit)),
      rows_(std::move(rows)),
      columns_(std::move(columns)),
      cells_(rows_.size() * columns_.size()) {}

bool Table::Measure(int rounds, const Sample& sample) {
  for (int round = 0; round < rounds; ++round) {
    for (size_t column = 0; column < columns_.size(); ++column) {
      for (size_t turn = 0; turn < rows_.size(); ++turn) {
        const size_t row = (turn + static_cast<size_t>(round)) % rows_.size();
        const std::optional<double> value = sample(row, column);
        if (!value) {
          std::fprintf(stderr, "%s: %s at %s failed\n", title_.c_str(),
                       rows_[row].c_str(), columns_[column].c_str());
          return false;
        }
        cells_[row * columns_.size() + column].push_back(*value);
      }
    }
  }
  return true;
}

const std::vector<double>& Table::Cell(size_t row, size_t column) const {
  return cells_[row * columns_.size() + column];
}

double Table::MedianOf(size_t row, size_t column) const {
  return Median(Cell(row, column));
}

void Table::Print(const std::vector<std::optional<size_t>>& baselines) const {
  std::vector<size_t> bases;
  std::string note;
  for (const std::optional<size_t>& baseline : baselines) {
    if (!baseline) continue;
    note += (bases.empty() ? " (multiple of " : "; of ") + rows_[*baseline];
    bases.push_back(*baseline);
  }
  if (!bases.empty()) note += ')';
  const int width = 10 + 8 * static_cast<int>(bases.size());
  std::printf("\n%s, %s%s\n%-26s", title_.c_str(), unit_.c_str(), note.c_str(),
              "");
  for (const std::string& column : columns_) {
    std::printf("%*s", width, column.c_str());
  }
  std::puts("");
  for (size_t row = 0; row < rows_.size(); ++row) {
    std::printf("%-26s", rows_[row].c_str());
    for (size_t column = 0; column < columns_.size(); ++column) {
      const double value = MedianOf(row, column);
      std::printf("%10s", Number(value).c_str());
      for (const size_t base : bases) {
        const double ratio = value / MedianOf(base, column);
        std::printf("%8s", Text("(%s)", Number(ratio).c_str()).c_str());
      }
    }
    std::puts("");
  }
}

std::string Table::ToJson() const {
  std::string json = "{\"title\": " + Quoted(title_) +
                     ", \"unit\": " + Quoted(unit_) + ", \"figures\": [";
  const char* separator = "\n";
  for (size_t row = 0; row < rows_.size(); ++row) {
    for (size_t column = 0; column < columns_.size(); ++column) {
      json += separator;
      json += "  {\"name\": " + Quoted(rows_[row]) +
              ", \"setting\": " + Quoted(columns_[column]) +
              Text(", \"median\": %.6g, \"samples\": [", MedianOf(row, column));
      const char* comma = "";
      for (const double value : Cell(row, column)) {
        json += Text("%s%.6g", comma, value);
        comma = ", ";
      }
      json += "]}";
      separator = ",\n";
    }
  }
  return json + "]}";
}

const Goal::Figure& Goal::Worst() const {
  return *std::max_element(
      figures.begin(), figures.end(), [this](const Figure& a, const Figure& b) {
        return bound == Bound::kAtMost ? a.value < b.value : a.value > b.value;
      });
}

bool Goal::Met() const {
  const double worst = Worst().value;
  return bound == Bound::kAtMost ? worst <= limit : worst >= limit;
}

void PrintGoals(const std::vector<Goal>& goals) {
  if (goals.empty()) return;
  std::puts("\nGoals");
  for (const Goal& goal : goals) {
    const Goal::Figure& worst = goal.Worst();
    std::printf("  %-8s %-58s %s %-5s %s%s%s\n", goal.Met() ? "met" : "NOT MET",
                goal.text.c_str(), goal.bound == Bound::kAtMost ? "<=" : ">=",
                Number(goal.limit).c_str(), Number(worst.value).c_str(),
                worst.setting.empty() ? "" : " at ", worst.setting.c_str());
  }
}

bool WriteJson(const std::string& file, std::string_view bench,
               const std::vector<const Table*>& tables,
               const std::vector<Goal>& goals) {
  std::ofstream out(file);
  out << "{\"bench\": " << Quoted(bench) << ",\n\"tables\": [";
  const char* separator = "\n";
  for (const Table* table : tables) {
    out << std::exchange(separator, ",\n") << table->ToJson();
  }
  out << "],\n\"goals\": [";
  separator = "\n";
  for (const Goal& goal : goals) {
    out << std::exchange(separator, ",\n")
        << "  {\"text\": " << Quoted(goal.text) << ", \"bound\": "
        << (goal.bound == Bound::kAtMost ? "\"at most\"" : "\"at least\"")
        << Text(", \"limit\": %g, \"worst\": %.6g, \"met\": %s}", goal.limit,
                goal.Worst().value, goal.Met() ? "true" : "false");
  }
  out << "]}\n";
  out.close();
  if (out) return true;
  std::fprintf(stderr, "%s: %s\n", file.c_str(), std::strerror(errno));
  return false;
}

}  // namespace zu::bench
