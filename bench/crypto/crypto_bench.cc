// How fast the digests are, over memory and over files, beside what the
// processor allows, libcrypto and the usual tools.

#include <fcntl.h>
#include <openssl/evp.h>
#include <sched.h>
#include <spawn.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "crypto/sha256_blocks.h"
#include "harness.h"

namespace zu::bench {
namespace {

constexpr char kSummary[] =
    "Digests over memory beside a chain of dependent additions and "
    "libcrypto's\n"
    "SHA-512; hashes of a large and of a small file in the page cache beside\n"
    "both digests in turn and md5sum with sha1sum.\n\n"
    "  --size MIB    size of the large file (default 1024), which is made in\n"
    "                $TMPDIR, else in /dev/shm where it fits, else in /tmp";

const std::vector<std::string> kNames = {"chain", "md5",  "sha256", "sha512",
                                         "ours",  "turn", "tools"};

constexpr size_t kMiB = size_t{1} << 20;
constexpr size_t kSmallSize = 4096;
constexpr size_t kBufferSize = 64 * 1024;

// What a block of the MD5-shaped digest cannot do without: as many operations
// that wait for each other, each of one cycle.
constexpr size_t kChainPerBlock = 353;
constexpr size_t kBlockSize = 64;

struct Contestant {
  std::string name;  // As --only takes it.
  std::string label;
  std::function<bool()> run;
};

// Some contestants, the measured table and its rows by label.
class Contest {
 public:
  Contest(const Options& options, std::string title, std::string unit,
          double units_per_second, std::string setting,
          std::vector<Contestant> contestants)
      : title_(std::move(title)), setting_(std::move(setting)) {
    for (Contestant& contestant : contestants) {
      if (!options.Wants(contestant.name)) continue;
      labels_.push_back(contestant.label);
      contestants_.push_back(std::move(contestant));
    }
    if (contestants_.empty()) return;
    table_.emplace(title_, std::move(unit), labels_,
                   std::vector<std::string>{setting_});
    scale_ = units_per_second;
  }

  // Each sample is `repetitions` runs.
  [[nodiscard]] bool Measure(int rounds, int repetitions) {
    if (!table_) return true;
    size_t samples = 0;
    return table_->Measure(rounds, [&](size_t row, size_t /*column*/) {
      if (samples++ % contestants_.size() == 0) {
        std::fprintf(stderr, "%s: round %zu of %d\n", title_.c_str(),
                     (samples - 1) / contestants_.size() + 1, rounds);
      }
      return Time(contestants_[row], repetitions);
    });
  }

  void Print(const std::vector<std::string>& baselines) const {
    if (!table_) return;
    std::vector<std::optional<size_t>> rows;
    for (const std::string& label : baselines) rows.push_back(RowOf(label));
    table_->Print(rows);
  }

  // The median of one contestant as a multiple of another's, as a goal unless
  // one of them was not measured.
  void AddGoal(std::vector<Goal>& goals, std::string text,
               const std::string& numerator, const std::string& denominator,
               Bound bound, double limit) const {
    const auto above = RowOf(numerator), below = RowOf(denominator);
    if (!above || !below) return;
    goals.push_back({std::move(text),
                     bound,
                     limit,
                     {{setting_, table_->MedianOf(*above, 0) /
                                     table_->MedianOf(*below, 0)}}});
  }

  [[nodiscard]] const Table* table() const {
    return table_ ? &*table_ : nullptr;
  }

 private:
  std::optional<double> Time(const Contestant& contestant,
                             int repetitions) const {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < repetitions; ++i) {
      if (!contestant.run()) return std::nullopt;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                         begin)
               .count() *
           scale_ / repetitions;
  }

  std::optional<size_t> RowOf(const std::string& label) const {
    const auto found = std::find(labels_.begin(), labels_.end(), label);
    if (found == labels_.end()) return std::nullopt;
    return static_cast<size_t>(found - labels_.begin());
  }

  std::string title_;
  std::string setting_;
  double scale_ = 1;
  std::vector<Contestant> contestants_;
  std::vector<std::string> labels_;
  std::optional<Table> table_;
};

// ------------------------------------------------------------------ memory --

// Sixteen at a time, so that the loop itself does not show.
template <size_t... kStep>
uint64_t AddInTurn(uint64_t value, uint64_t step,
                   std::index_sequence<kStep...> /*steps*/) {
  const auto add = [&](size_t /*number*/) {
    value += step;
    asm volatile("" : "+r"(value));  // The compiler would add up.
  };
  (add(kStep), ...);
  return value;
}

bool RunChain(size_t blocks) {
  constexpr size_t kSteps = 16;
  uint64_t value = 0;
  for (size_t i = 0; i < blocks * kChainPerBlock / kSteps; ++i) {
    value = AddInTurn(value, blocks, std::make_index_sequence<kSteps>());
  }
  return value == blocks * blocks * kChainPerBlock;
}

bool DigestMd5(const std::vector<std::byte>& message, size_t size) {
  ZuMD5Context context;
  MD5Open(&context);
  for (size_t done = 0; done < size; done += message.size()) {
    MD5Digest(&context, message.data(),
              static_cast<uint32_t>(std::min(size - done, message.size())));
  }
  uint8_t digest[ZU_MD5_OUTPUT_SIZE];
  MD5Close(&context, digest);
  return true;
}

bool DigestSha256(crypto::Sha256Compression* compress,
                  const std::vector<std::byte>& message) {
  uint64_t hash[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  compress(hash, message.data(), message.size() / kBlockSize);
  return hash[0] != 1;
}

class Sha512 {
 public:
  Sha512() : digest_(EVP_MD_fetch(nullptr, "SHA2-512", nullptr)) {}
  ~Sha512() { EVP_MD_free(digest_); }
  Sha512(const Sha512&) = delete;
  Sha512& operator=(const Sha512&) = delete;

  bool Digest(const std::vector<std::byte>& message) const {
    unsigned char value[EVP_MAX_MD_SIZE];
    return EVP_Digest(message.data(), message.size(), value, nullptr, digest_,
                      nullptr) == 1;
  }

 private:
  EVP_MD* digest_;
};

// ------------------------------------------------------------------- files --

// A file that goes when this does.
class TestFile {
 public:
  explicit TestFile(size_t size) : path_(Directory(size) + "/zu_bench.XXXXXX") {
    const int file = ::mkstemp(path_.data());
    std::fprintf(stderr, "making a file of %zu bytes: %s\n", size,
                 path_.c_str());
    made_ = file >= 0;
    std::vector<char> piece(std::min(size, kMiB));
    uint32_t state = 1;
    for (size_t done = 0; made_ && !failed_ && done < size;) {
      for (char& c : piece) {
        state = state * 1103515245 + 12345;
        c = static_cast<char>(state >> 24);
      }
      const ssize_t written =
          ::write(file, piece.data(), std::min(piece.size(), size - done));
      if (written <= 0) failed_ = true;
      done += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
    if (!made_ || failed_) std::perror(path_.c_str());
    ::close(file);
  }
  ~TestFile() {
    if (made_) ::unlink(path_.c_str());
  }
  TestFile(const TestFile&) = delete;
  TestFile& operator=(const TestFile&) = delete;

  [[nodiscard]] bool good() const { return made_ && !failed_; }
  [[nodiscard]] const char* path() const { return path_.c_str(); }

 private:
  static std::string Directory(size_t size) {
    if (const char* chosen = std::getenv("TMPDIR")) return chosen;
    struct statvfs memory {};
    const bool fits = ::statvfs("/dev/shm", &memory) == 0 &&
                      memory.f_bavail * memory.f_frsize > size + size / 4;
    return fits ? "/dev/shm" : "/tmp";
  }

  std::string path_;
  bool made_ = false;
  bool failed_ = false;
};

bool HashFile(const char* path) {
  char md5[ZU_MD5_TEXT_SIZE], sha1[ZU_SHA1_TEXT_SIZE];
  return GetMd5AndSha1(path, md5, sha1) == 1;
}

// The plain way on one thread.
class InTurn {
 public:
  InTurn()
      : sha1_(EVP_MD_fetch(nullptr, "SHA1", nullptr)),
        context_(EVP_MD_CTX_new()) {}
  ~InTurn() {
    EVP_MD_CTX_free(context_);
    EVP_MD_free(sha1_);
  }
  InTurn(const InTurn&) = delete;
  InTurn& operator=(const InTurn&) = delete;

  bool HashFile(const char* path) {
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0 || EVP_DigestInit_ex2(context_, sha1_, nullptr) != 1) {
      return false;
    }
    ZuMD5Context md5;
    MD5Open(&md5);
    ssize_t size = 0;
    while ((size = ::read(file, buffer_.data(), buffer_.size())) > 0) {
      MD5Digest(&md5, buffer_.data(), static_cast<uint32_t>(size));
      EVP_DigestUpdate(context_, buffer_.data(), static_cast<size_t>(size));
    }
    ::close(file);
    uint8_t md5_digest[ZU_MD5_OUTPUT_SIZE];
    unsigned char sha1_digest[EVP_MAX_MD_SIZE];
    MD5Close(&md5, md5_digest);
    return size == 0 && EVP_DigestFinal_ex(context_, sha1_digest, nullptr) == 1;
  }

 private:
  EVP_MD* sha1_;
  EVP_MD_CTX* context_;
  std::vector<std::byte> buffer_ = std::vector<std::byte>(kBufferSize);
};

bool RunTool(const char* tool, const char* path) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const char* const arguments[] = {tool, path, nullptr};
  pid_t pid = 0;
  const int error =
      ::posix_spawnp(&pid, tool, &actions, nullptr,
                     const_cast<char* const*>(arguments), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return error == 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

// --------------------------------------------------------------------- run --

constexpr char kOurs[] = "file hashes";
constexpr char kMd5[] = "MD5-shaped";
constexpr char kMemory[] = "MD5-shaped, over memory";
constexpr char kTurn[] = "both digests in turn";
constexpr char kTools[] = "md5sum, sha1sum";
constexpr char kChain[] = "chain of additions";
constexpr char kSha512[] = "libcrypto's SHA-512";

std::string LabelOf(const crypto::Sha256Method& method) {
  return std::string("SHA-256-shaped, ") + method.name;
}

int Run(const Options& options, size_t large_size) {
  ZuDeadLockDisable();  // Nobody here reports to the watchdog.
  const TestFile large(large_size), small(kSmallSize);
  if (!large.good() || !small.good()) return 1;

  const std::vector<std::byte> message(kMiB, std::byte{0x5A});
  const Sha512 sha512;
  InTurn in_turn;
  std::vector<Contestant> digests = {
      {"chain", kChain, [] { return RunChain(kMiB / kBlockSize); }},
      {"md5", kMd5, [&] { return DigestMd5(message, message.size()); }},
      {"sha512", kSha512, [&] { return sha512.Digest(message); }}};
  const auto methods = crypto::Sha256Methods();
  for (const crypto::Sha256Method& method : methods) {
    digests.push_back({"sha256", LabelOf(method),
                       [&] { return DigestSha256(method.compress, message); }});
  }
  Contest memory(options, "Digests over memory", "us", 1e6, "1 MiB",
                 std::move(digests));
  Contest large_file(
      options, "A large file", "ms", 1e3,
      std::to_string(large_size / kMiB) + " MiB",
      {{"ours", kOurs, [&] { return HashFile(large.path()); }},
       {"md5", kMemory, [&] { return DigestMd5(message, large_size); }},
       {"turn", kTurn, [&] { return in_turn.HashFile(large.path()); }},
       {"tools", kTools, [&] {
          return RunTool("md5sum", large.path()) &&
                 RunTool("sha1sum", large.path());
        }}});
  Contest small_file(
      options, "A small file", "us", 1e6, "4 KiB",
      {{"ours", kOurs, [&] { return HashFile(small.path()); }},
       {"turn", kTurn, [&] { return in_turn.HashFile(small.path()); }}});

  cpu_set_t all;
  ::sched_getaffinity(0, sizeof all, &all);
  if (PinToOneProcessor() < 0 || !memory.Measure(options.rounds, 10)) return 1;
  // Files are hashed on whatever processors there are.
  ::sched_setaffinity(0, sizeof all, &all);
  if (!small_file.Measure(options.rounds, 1000) ||
      !large_file.Measure(options.rounds, 1)) {
    return 1;
  }

  memory.Print({kChain, kSha512});
  small_file.Print({kTurn});
  large_file.Print({kMemory, kTurn});
  std::vector<Goal> goals;
  memory.AddGoal(goals, "MD5-shaped, times its chain", kMd5, kChain,
                 Bound::kAtMost, 1.05);
  if (methods.size() > 1) {
    memory.AddGoal(goals, "SHA-256-shaped, bytes/s of SHA-512's", kSha512,
                   LabelOf(methods.front()), Bound::kAtLeast, 0.5);
  }
  memory.AddGoal(goals, "the same, portable", kSha512, LabelOf(methods.back()),
                 Bound::kAtLeast, 0.4);
  small_file.AddGoal(goals, "file hashes, times both digests in turn", kOurs,
                     kTurn, Bound::kAtMost, 1.2);
  large_file.AddGoal(goals, "file hashes, bytes/s of MD5-shaped over memory",
                     kMemory, kOurs, Bound::kAtLeast, 0.92);
  large_file.AddGoal(goals, "file hashes, times as fast as md5sum, sha1sum",
                     kTools, kOurs, Bound::kAtLeast, 1.8);
  PrintGoals(goals);

  if (options.json_file.empty()) return 0;
  std::vector<const Table*> tables;
  for (const Contest* contest : {&memory, &small_file, &large_file}) {
    if (contest->table() != nullptr) tables.push_back(contest->table());
  }
  return WriteJson(options.json_file, "crypto", tables, goals) ? 0 : 1;
}

// Takes --size out of the command line, of which the harness knows nothing.
// nullopt: it is wrong.
std::optional<size_t> TakeSize(int& argc, char** argv) {
  size_t size = 1024 * kMiB;
  int kept = 0;
  for (int i = 0; i < argc; ++i) {
    if (std::string_view(argv[i]) != "--size") {
      argv[kept++] = argv[i];
      continue;
    }
    char* end = nullptr;
    const long mib = ++i < argc ? std::strtol(argv[i], &end, 10) : 0;
    if (mib < 1 || mib > 65536 || *end != '\0') {
      std::fprintf(stderr, "%s: --size takes a number from 1 to 65536\n",
                   argv[0]);
      return std::nullopt;
    }
    size = static_cast<size_t>(mib) * kMiB;
  }
  argc = kept;
  argv[argc] = nullptr;
  return size;
}

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  const auto size = zu::bench::TakeSize(argc, argv);
  if (!size) return 2;
  int exit_code = 0;
  const auto options = zu::bench::ParseOptions(argc, argv, zu::bench::kSummary,
                                               zu::bench::kNames, exit_code);
  return options ? zu::bench::Run(*options, *size) : exit_code;
}
