// zuctl ps and zuctl modules: processes, and what is loaded into one.
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZuHelper.h"
#include "quiet_errors.h"
#include "table.h"
#include "text.h"

namespace zu::ctl {
namespace {

// Absent when the table cannot be read.
std::optional<std::vector<int32_t>> AllProcesses() {
  std::vector<int32_t> pids(1024);
  for (;;) {
    auto count = static_cast<int32_t>(pids.size());
    if (ListProcesses(pids.data(), &count) != ZU_PROCESS_OK) {
      return std::nullopt;
    }
    const bool complete = static_cast<size_t>(count) <= pids.size();
    // Some more may start until the next time.
    pids.resize(static_cast<size_t>(complete ? count : count + 64));
    if (complete) return pids;
  }
}

std::optional<std::string> PathOf(int32_t pid) {
  std::string path(1024, '\0');
  for (;;) {
    auto size = static_cast<uint32_t>(path.size());
    if (GetProcessFullPath(pid, path.data(), &size) != ZU_PROCESS_OK) {
      return std::nullopt;
    }
    const bool complete = size < path.size();
    path.resize(complete ? size : size + 1);
    if (complete) return path;
  }
}

bool IsGone(int32_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

// What the paths come from: NUL after each. The status is the library's.
uint32_t ReadModules(int32_t pid, std::vector<std::string>& paths) {
  const QuietErrors quiet;
  std::string list;
  uint32_t size = 1 << 16;
  do {  // Until it fits.
    list.assign(size, '\0');
    const uint32_t status = GetProcessModules(pid, list.data(), &size);
    if (status != ZU_PROCESS_OK) return status;
  } while (size > list.size());
  // Behind the list, if anything, are zeros.
  for (const char* path = list.c_str(); *path != '\0';
       path += std::strlen(path) + 1) {
    paths.emplace_back(path);
  }
  return ZU_PROCESS_OK;
}

Exit FailOnProcess(std::string_view pid_text, int32_t pid) {
  if (IsGone(pid)) return Fail(Exit::kNotFound, pid_text, "no such process");
  uint32_t task = 0;
  if (GetMachTask(pid, &task) != 0) {
    return Fail(Exit::kNotPermitted, pid_text,
                "the system does not let this user look into it");
  }
  return Fail(Exit::kFailed, pid_text, "the process's modules cannot be read");
}

}  // namespace

Exit RunProcesses(const Options& options) {
  const auto pids = AllProcesses();
  if (!pids) return Fail(Exit::kFailed, "ps", "the table cannot be read");
  std::vector<Row> rows{{{"PID", "BITS", "PATH"}, Tone::kTitle}};
  std::vector<std::string> objects;
  for (const int32_t pid : *pids) {
    const std::optional<std::string> path = PathOf(pid);
    if (!path && IsGone(pid)) continue;
    // Of code that cannot be read, the kind is not known either.
    const Value bits =
        path ? NumberValue(IsProcess64bits(pid) != 0 ? 64 : 32) : Unknown("-");
    const Value name = path ? TextValue(*path) : Unknown("-");
    const std::string number = std::to_string(pid);
    rows.push_back({{number, bits.text, name.text}, name.tone});
    objects.push_back("{\"pid\":" + number + ",\"bits\":" + bits.json +
                      ",\"path\":" + name.json + "}");
  }
  if (options.json) return PrintLine(JsonArray(objects));
  return PrintLine(ToLines(rows, 2, "", ReadScreen(options)));
}

Exit RunModules(const Options& options) {
  const std::string_view text = options.arguments[0];
  int32_t pid = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), pid);
  if (error != std::errc() || end != text.data() + text.size() || pid < 1) {
    return Fail(Exit::kUsage, text, "not the number of a process");
  }
  std::vector<std::string> paths;
  if (ReadModules(pid, paths) != ZU_PROCESS_OK || paths.empty()) {
    return FailOnProcess(text, pid);
  }
  std::vector<Row> rows;
  std::vector<std::string> quoted;
  for (const std::string& path : paths) {
    rows.push_back({{Printable(path)}});
    quoted.push_back(QuoteJson(path));
  }
  if (options.json) return PrintLine(JsonArray(quoted));
  return PrintLine(ToLines(rows, 0, "", ReadScreen(options)));
}

}  // namespace zu::ctl
