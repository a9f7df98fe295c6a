// How long it takes to check signatures, beside what the digests alone take.

#include <fcntl.h>
#include <openssl/evp.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "harness.h"
#include "platform/linux/signing/signer/bundle_signer.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "tests/support/macho_builder.h"

namespace zu::bench {
namespace {

namespace fs = std::filesystem;

constexpr char kSummary[] =
    "Checks ad-hoc signed Mach-O files of three sizes and a bundle of 1,000\n"
    "sealed files, beside the digests alone, all files being in the page\n"
    "cache. Needs 400 MB in $TMPDIR (/tmp).";

struct Setting {
  const char* label;
  size_t size;
};
constexpr Setting kFiles[] = {
    {"300 KB", 300'000}, {"30 MB", 30'000'000}, {"300 MB", 300'000'000}};
constexpr size_t kSealedFiles = 1000;
constexpr size_t kSealedSize = 20'000;

enum Row : size_t {
  kTool,    // openssl dgst, a process of its own
  kDigest,  // the same digest in this process
  kOne,     // our check on one processor
  kTwo,     // on all of them
};
const std::vector<std::string> kRows = {
    "openssl dgst -sha256 (a process)", "libcrypto, read and digest",
    "check, one processor", "check, all processors"};
const std::vector<std::string> kNames = {"tool", "digest", "one", "all"};

double Now() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool RunTool(const std::vector<std::string>& paths) {
  std::vector<const char*> arguments = {"openssl", "dgst", "-sha256"};
  for (const std::string& path : paths) arguments.push_back(path.c_str());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int error =
      ::posix_spawnp(&pid, "openssl", &actions, nullptr,
                     const_cast<char**>(arguments.data()), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return error == 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

// What no check can do without: open, read, digest.
bool DigestFile(const std::string& path, EVP_MD_CTX* context,
                std::vector<char>& buffer) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0 || EVP_DigestInit_ex2(context, nullptr, nullptr) != 1) {
    return false;
  }
  ssize_t count = 0;
  while ((count = ::read(file, buffer.data(), buffer.size())) > 0) {
    EVP_DigestUpdate(context, buffer.data(), static_cast<size_t>(count));
  }
  ::close(file);
  unsigned char value[EVP_MAX_MD_SIZE];
  return count == 0 && EVP_DigestFinal_ex(context, value, nullptr) == 1;
}

class SigningBench {
 public:
  explicit SigningBench(Options options) : options_(std::move(options)) {
    digest_ = EVP_MD_CTX_new();
    EVP_DigestInit_ex2(digest_, EVP_sha256(), nullptr);
  }
  ~SigningBench() {
    EVP_MD_CTX_free(digest_);
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }
  SigningBench(const SigningBench&) = delete;
  SigningBench& operator=(const SigningBench&) = delete;

  int Run() {
    ZuDeadLockDisable();  // Nobody here reports to the watchdog.
    ::sched_getaffinity(0, sizeof(all_), &all_);
    if (!Prepare()) return 1;
    if (PinToOneProcessor() < 0) return 1;
    ::sched_getaffinity(0, sizeof(one_), &one_);

    std::vector<std::string> rows;
    for (size_t row = 0; row < kRows.size(); ++row) {
      if (options_.Wants(kNames[row])) {
        rows.push_back(kRows[row]);
        kinds_.push_back(static_cast<Row>(row));
      }
    }
    std::vector<std::string> columns;
    for (const Setting& setting : kFiles) columns.emplace_back(setting.label);
    columns.emplace_back("bundle, 1000 files");
    Table table("Time to check", "us", rows, columns);
    if (!table.Measure(options_.rounds, [this](size_t row, size_t column) {
          return Measure(kinds_[row], column);
        })) {
      return 1;
    }
    table.Print({RowOf(kTool), RowOf(kDigest)});
    const std::vector<Goal> goals = Goals(table);
    PrintGoals(goals);
    if (options_.json_file.empty()) return 0;
    return WriteJson(options_.json_file, "signing", {&table}, goals) ? 0 : 1;
  }

 private:
  bool Prepare() {
    const char* const temporary = std::getenv("TMPDIR");
    std::string pattern =
        std::string(temporary != nullptr ? temporary : "/tmp") +
        "/zu_bench.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("cannot prepare");
      return false;
    }
    directory_ = pattern;
    std::string error;
    for (const Setting& setting : kFiles) {
      const fs::path path = directory_ / std::to_string(setting.size);
      test::WriteBytes(path, test::BuildMachO({.code_size = setting.size}));
      if (platform::SignMachO(path, {.identifier = "bench"}, error) !=
          platform::SignResult::kSigned) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return false;
      }
      paths_.push_back(path);
      digested_.push_back({path});
    }
    const fs::path bundle = directory_ / "Bench.app";
    const fs::path resources = bundle / "Contents/Resources";
    fs::create_directories(resources);
    fs::create_directories(bundle / "Contents/MacOS");
    std::ofstream(bundle / "Contents/Info.plist")
        << "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
           "<string>Bench</string><key>CFBundleIdentifier</key>"
           "<string>bench</string></dict></plist>\n";
    test::WriteBytes(bundle / "Contents/MacOS/Bench", test::BuildMachO());
    std::vector<std::string>& sealed = digested_.emplace_back();
    for (size_t i = 0; i < kSealedFiles; ++i) {
      const fs::path path = resources / ("file" + std::to_string(i));
      std::ofstream(path) << std::string(kSealedSize, static_cast<char>(i));
      sealed.push_back(path);
    }
    if (platform::SignBundle(bundle, {}, error) !=
        platform::SignResult::kSigned) {
      std::fprintf(stderr, "%s\n", error.c_str());
      return false;
    }
    paths_.push_back(bundle);
    return true;
  }

  std::optional<double> Measure(Row row, size_t column) {
    // Long enough that the clock and a stray interrupt do not show.
    const int repetitions = column == 0 ? 20 : 1;
    if (row == kTwo) ::sched_setaffinity(0, sizeof(all_), &all_);
    const double start = Now();
    bool good = true;
    for (int i = 0; i < repetitions; ++i) good = Once(row, column) && good;
    const double time = Now() - start;
    ::sched_setaffinity(0, sizeof(one_), &one_);
    if (!good) {
      std::fprintf(stderr, "%s: failed\n", kRows[row].c_str());
      return std::nullopt;
    }
    return time / repetitions;
  }

  bool Once(Row row, size_t column) {
    switch (row) {
      case kTool:
        return RunTool(digested_[column]);
      case kDigest:
        for (const std::string& path : digested_[column]) {
          if (!DigestFile(path, digest_, buffer_)) return false;
        }
        return true;
      case kOne:
      case kTwo:
        break;
    }
    return GetBundleSignatureStatus(paths_[column].c_str()) ==
           ZU_SIGNATURE_VALID;
  }

  std::optional<size_t> RowOf(Row kind) const {
    for (size_t row = 0; row < kinds_.size(); ++row) {
      if (kinds_[row] == kind) return row;
    }
    return std::nullopt;
  }

  std::vector<Goal> Goals(const Table& table) const {
    std::vector<Goal> goals;
    const auto tool = RowOf(kTool), one = RowOf(kOne), two = RowOf(kTwo);
    if (tool && one) {
      Goal goal{"one processor, times openssl dgst", Bound::kAtMost, 1.1, {}};
      for (size_t i = 0; i < std::size(kFiles); ++i) {
        goal.figures.push_back({kFiles[i].label, table.MedianOf(*one, i) /
                                                     table.MedianOf(*tool, i)});
      }
      goals.push_back(std::move(goal));
    }
    if (one && two) {
      Goal goal{"two processors, times as fast", Bound::kAtLeast, 1.8, {}};
      for (size_t i = 1; i < std::size(kFiles); ++i) {
        goal.figures.push_back({kFiles[i].label, table.MedianOf(*one, i) /
                                                     table.MedianOf(*two, i)});
      }
      goals.push_back(std::move(goal));
    }
    return goals;
  }

  const Options options_;
  cpu_set_t all_{};
  cpu_set_t one_{};
  fs::path directory_;
  EVP_MD_CTX* digest_ = nullptr;
  std::vector<char> buffer_ = std::vector<char>(256 * 1024);
  std::vector<std::string> paths_;                  // What is checked,
  std::vector<std::vector<std::string>> digested_;  // what is in there.
  std::vector<Row> kinds_;
};

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  int exit_code = 0;
  const auto options = zu::bench::ParseOptions(argc, argv, zu::bench::kSummary,
                                               zu::bench::kNames, exit_code);
  if (!options) return exit_code;
  return zu::bench::SigningBench(*options).Run();
}
