// How long it takes to list processes, their parents and their modules, and
// what the performance counters cost, beside other ways to the same figures.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <libproc2/pids.h>
#include <link.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "harness.h"
#include "support/file_descriptor.h"

namespace zu::bench {
namespace {

namespace fs = std::filesystem;

constexpr char kSummary[] =
    "Lists 2,000 processes, the modules of one with 80 images, and reads the\n"
    "performance counters, with 100 files open, beside other ways to the same.";

constexpr int kProcesses = 2000;
constexpr int kImages = 80;
constexpr int kFiles = 100;

double Now_us() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// A child that has run `prepare`; it sleeps until it is killed.
class SleepingChild {
 public:
  template <typename Prepare>
  explicit SleepingChild(Prepare prepare) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const FileDescriptor source(ends[0]);
    FileDescriptor sink(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent || !prepare()) ::_exit(1);
      (void)RetryOnInterrupt([&] { return ::write(sink.get(), "", 1); });
      sink.reset();
      for (;;) ::pause();
    }
    sink.reset();
    char ready;
    if (RetryOnInterrupt([&] { return ::read(source.get(), &ready, 1); }) ==
        1) {
      pid_ = pid;
    }
  }
  SleepingChild(SleepingChild&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)) {}
  ~SleepingChild() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// --------------------------------------------------------------- processes --

// What no listing can do without.
bool ReadTable() {
  const FileDescriptor table(::open("/proc", O_RDONLY | O_DIRECTORY));
  alignas(dirent64) char buffer[16384];
  ssize_t size = 0;
  do {
    size = ::getdents64(table.get(), buffer, sizeof buffer);
  } while (size > 0);
  return size == 0;
}

bool ListIds() {
  int32_t ids[2 * kProcesses];
  auto count = static_cast<int32_t>(std::size(ids));
  return ListProcesses(ids, &count) == ZU_PROCESS_OK && count > kProcesses;
}

bool ReadRecords() {
  void* records = nullptr;
  size_t size = 0;
  if (GetProcessesInfo(&records, &size) != ZU_PROCESS_OK) return false;
  std::free(records);
  return size > size_t{kProcesses} * ZU_PROCESS_RECORD_SIZE;
}

// What it keeps between its calls, it has kept here.
bool AskProcps() {
  static pids_info* const information = [] {
    pids_item items[] = {PIDS_ID_PID, PIDS_ID_PPID};
    pids_info* made = nullptr;
    return procps_pids_new(&made, items, 2) == 0 ? made : nullptr;
  }();
  if (information == nullptr) return false;
  const pids_fetch* const fetched =
      procps_pids_reap(information, PIDS_FETCH_TASKS_ONLY);
  return fetched != nullptr && fetched->counts->total > kProcesses;
}

bool RunPs() {
  const char* const arguments[] = {"ps", "-e", "-o", "pid,ppid", nullptr};
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null",
                                     O_WRONLY, 0);
  pid_t pid = 0;
  const int error = ::posix_spawnp(&pid, "ps", &actions, nullptr,
                                   const_cast<char**>(arguments), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return error == 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

// ----------------------------------------------------------------- modules --

int CountImages() {
  int count = 0;
  ::dl_iterate_phdr(
      [](dl_phdr_info*, size_t, void* context) {
        return ++*static_cast<int*>(context), 0;
      },
      &count);
  return count;
}

// Copies of a library of this program's: they are as many on every machine, and
// no library's initialisation does anything that we do not know.
bool LoadImages(const fs::path& directory) {
  Dl_info library;
  if (::dladdr(reinterpret_cast<void*>(&procps_pids_new), &library) == 0) {
    return false;
  }
  for (int i = 0; CountImages() < kImages; ++i) {
    const fs::path copy =
        directory / ("libbench_image" + std::to_string(i) + ".so.0");
    fs::copy_file(library.dli_fname, copy);
    if (::dlopen(copy.c_str(), RTLD_NOW) == nullptr) return false;
  }
  return true;
}

// The kernel's own image is no module: it has no file.
bool ListModules(pid_t pid) {
  char paths[64 * 1024];
  uint32_t size = sizeof paths;
  if (GetProcessModules(pid, paths, &size) != ZU_PROCESS_OK ||
      size > sizeof paths) {
    return false;
  }
  return std::count(paths, paths + size, '\0') >= kImages - 1;
}

bool ParseMaps(pid_t pid) {
  const FileDescriptor file(
      ::open(("/proc/" + std::to_string(pid) + "/maps").c_str(), O_RDONLY));
  static std::vector<char> buffer(256 * 1024);
  size_t size = 0;
  for (ssize_t count; (count = ::read(file.get(), buffer.data() + size,
                                      buffer.size() - size)) > 0;) {
    size += static_cast<size_t>(count);
  }
  std::unordered_set<std::string_view> paths;
  std::string_view last;
  std::string_view rest(buffer.data(), size);
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const size_t start = line.find('/');
    if (start == line.npos || line.substr(start) == last) continue;
    paths.insert(last = line.substr(start));
  }
  return paths.size() >= kImages - 1;
}

// ---------------------------------------------------------------- counters --

bool ReadCounters() {
  uint64_t slots[ZU_MEMORY_SLOTS];
  constexpr auto kSlots = static_cast<uint32_t>(std::size(slots));
  return GetCPUsages(slots, kSlots) != 0 &&
         GetMemoryStatistics(slots, kSlots) != 0 &&
         GetMachEventStatistics(slots, kSlots) != 0 &&
         GetOpenedFileAndSockCnnections(slots, kSlots) != 0;
}

bool CountDescriptors() {
  uint64_t slots[ZU_DESCRIPTOR_SLOTS];
  return GetOpenedFileAndSockCnnections(slots, ZU_DESCRIPTOR_SLOTS) != 0 &&
         slots[0] >= kFiles;
}

bool ReadLinks() {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(
      ::opendir("/proc/self/fd"), ::closedir);
  if (directory == nullptr) return false;
  int files = 0;
  while (const dirent* entry = ::readdir(directory.get())) {
    char target[4096];
    const ssize_t size = ::readlinkat(::dirfd(directory.get()), entry->d_name,
                                      target, sizeof target);
    if (size < 0) continue;  // "." and "..".
    const std::string_view link(target, static_cast<size_t>(size));
    if (!link.starts_with("socket:")) ++files;
  }
  return files > kFiles;
}

// The tool complains, on systems where it does not know the name.
bool RunTool() {
  uint64_t slots[ZU_MISC_SLOTS];
  const FileDescriptor terminal(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
  const FileDescriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  ::dup2(null.get(), STDERR_FILENO);
  const bool good = GetMiscStatistics(slots, ZU_MISC_SLOTS) != 0;
  ::dup2(terminal.get(), STDERR_FILENO);
  return good;
}

// ---------------------------------------------------------------- contests --

struct Contestant {
  std::string name;
  std::string label;
  int repetitions;  // Long enough that the clock does not show.
  std::function<bool()> once;
};

struct ContestGoal {
  std::string text;
  Bound bound;
  double limit;
  std::string dividend;
  std::string divisor;  // Empty: the time itself, in microseconds.
};

struct Contest {
  std::string title;
  std::string setting;
  std::vector<Contestant> contestants;  // First the one to compare with.
  std::vector<ContestGoal> goals;
};

std::vector<Contest> Contests(pid_t loaded) {
  return {
      {"Processes",
       std::to_string(kProcesses),
       {{"getdents", "getdents64, no more", 20, ReadTable},
        {"list", "ListProcesses", 20, ListIds},
        {"info", "GetProcessesInfo", 2, ReadRecords},
        {"procps", "procps' library, pid and ppid", 2, AskProcps},
        {"ps", "ps -e -o pid,ppid", 1, RunPs}},
       {{"ListProcesses, times getdents64", Bound::kAtMost, 1.2, "list",
         "getdents"},
        {"GetProcessesInfo, times as fast as procps' library", Bound::kAtLeast,
         1.3, "procps", "info"},
        {"GetProcessesInfo, times as fast as ps", Bound::kAtLeast, 3, "ps",
         "info"}}},
      {"Modules",
       std::to_string(kImages) + " images",
       {{"maps", "/proc/PID/maps, parsed", 20,
         [=] { return ParseMaps(loaded); }},
        {"modules", "GetProcessModules", 20,
         [=] { return ListModules(loaded); }}},
       {{"GetProcessModules, times as fast as the maps", Bound::kAtLeast, 3,
         "maps", "modules"}}},
      {"Counters",
       std::to_string(kFiles) + " files",
       {{"links", "readlink of each descriptor", 50, ReadLinks},
        {"descriptors", "count of descriptors", 50, CountDescriptors},
        {"counters", "round of all, no tool", 50, ReadCounters},
        {"idle", "idle time", 5, [] { return SystemIdleTime(), true; }},
        {"tool", "threads and pressure (tool)", 1, RunTool}},
       {{"count of descriptors, times reading the links", Bound::kAtMost, 1,
         "descriptors", "links"},
        {"round of all counters, us", Bound::kAtMost, 1000, "counters", ""}}}};
}

std::optional<double> Measure(const Contestant& contestant) {
  const double start = Now_us();
  for (int i = 0; i < contestant.repetitions; ++i) {
    if (!contestant.once()) return std::nullopt;
  }
  return (Now_us() - start) / contestant.repetitions;
}

// Adds the table to `tables`, and the goals whose figures were measured. False
// when something could not be measured.
bool Hold(const Contest& contest, const Options& options,
          std::vector<Table>& tables, std::vector<Goal>& goals) {
  std::vector<const Contestant*> wanted;
  std::vector<std::string> rows;
  for (const Contestant& contestant : contest.contestants) {
    if (!options.Wants(contestant.name)) continue;
    wanted.push_back(&contestant);
    rows.push_back(contestant.label);
  }
  if (wanted.empty()) return true;
  // What is loaded or made by the first call is no part of any other.
  for (const Contestant* contestant : wanted) contestant->once();
  Table& table = tables.emplace_back(contest.title, "us", rows,
                                     std::vector<std::string>{contest.setting});
  if (!table.Measure(options.rounds, [&](size_t row, size_t /*column*/) {
        return Measure(*wanted[row]);
      })) {
    return false;
  }
  table.Print({0});
  const auto time_of = [&](const std::string& name) -> std::optional<double> {
    for (size_t row = 0; row < wanted.size(); ++row) {
      if (wanted[row]->name == name) return table.MedianOf(row, 0);
    }
    return std::nullopt;
  };
  for (const ContestGoal& goal : contest.goals) {
    const auto dividend = time_of(goal.dividend);
    const auto divisor = goal.divisor.empty() ? 1 : time_of(goal.divisor);
    if (!dividend || !divisor) continue;
    goals.push_back({.text = goal.text,
                     .bound = goal.bound,
                     .limit = goal.limit,
                     .figures = {{"", *dividend / *divisor}}});
  }
  return true;
}

// A directory for the images, which goes with it.
class Scratch {
 public:
  Scratch() {
    std::string pattern = fs::temp_directory_path() / "zu_bench.XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~Scratch() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

int Run(const Options& options) {
  ZuDeadLockDisable();  // Nobody here reports to the watchdog.
  if (PinToOneProcessor() < 0) return 1;
  const Scratch scratch;
  const SleepingChild loaded([&] { return LoadImages(scratch.path()); });
  std::vector<SleepingChild> children;
  while (children.size() < kProcesses) {
    if (children.emplace_back([] { return true; }).pid() < 0) break;
  }
  if (loaded.pid() < 0 || children.back().pid() < 0) {
    std::fputs("cannot start the processes\n", stderr);
    return 1;
  }
  std::vector<FileDescriptor> files;
  while (files.size() < kFiles) {
    files.emplace_back(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  }
  InitializeCounters();

  std::vector<Table> tables;
  std::vector<Goal> goals;
  for (const Contest& contest : Contests(loaded.pid())) {
    if (!Hold(contest, options, tables, goals)) return 1;
  }
  PrintGoals(goals);
  if (options.json_file.empty()) return 0;
  std::vector<const Table*> written;
  for (const Table& table : tables) written.push_back(&table);
  return WriteJson(options.json_file, "process", written, goals) ? 0 : 1;
}

std::vector<std::string> ContestantNames() {
  std::vector<std::string> names;
  for (const Contest& contest : Contests(0)) {
    for (const Contestant& contestant : contest.contestants) {
      names.push_back(contestant.name);
    }
  }
  return names;
}

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  int exit_code = 0;
  const auto options = zu::bench::ParseOptions(
      argc, argv, zu::bench::kSummary, zu::bench::ContestantNames(), exit_code);
  return options ? zu::bench::Run(*options) : exit_code;
}
