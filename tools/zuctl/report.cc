// zuctl report: what the library knows of the machine.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "build_values.h"
#include "quiet_errors.h"
#include "table.h"
#include "text.h"

namespace zu::ctl {
namespace {

constexpr int32_t kTextSize = 4096;

Value TextOrUnknown(const std::string& text, const char* unknown = "unknown") {
  return text.empty() ? Unknown(unknown) : TextValue(text);
}
Value NumberOrUnknown(uint64_t number) {
  return number == 0 ? Unknown() : NumberValue(number);
}

// ---- machine ----------------------------------------------------------------

Value HostName(int32_t network) {
  char name[kTextSize] = "";
  ZuGetHostName(network, name, kTextSize);
  return TextOrUnknown(name);
}

Value Property(const char* name) {
  char text[kTextSize] = "";
  GetPlatformProperty(name, text, kTextSize);
  return TextOrUnknown(text);
}

Section Machine() {
  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t patch = 0;
  uint32_t revision = 0;
  GetOSVersion(&major, &minor, &patch, &revision);
  std::string version;
  for (const uint32_t part : {major, minor, patch}) {
    if (!version.empty()) version += '.';
    version += std::to_string(part);
  }
  char architecture[kTextSize] = "";
  GetSystemArchitecture(architecture, kTextSize - 1);
  return {
      "machine",
      "Machine",
      {{"name", "Name", HostName(0)},
       {"network_name", "Name in the network", HostName(1)},
       {"system_version", "System version",
        TextOrUnknown(version == "0.0.0" ? "" : version)},
       {"system_revision", "System revision", NumberOrUnknown(revision)},
       {"architecture", "Architecture", TextOrUnknown(architecture)},
       {"manufacturer", "Manufacturer", Property("manufacturer")},
       {"model", "Model", Property("model")},
       {"serial_number", "Serial number", Property("IOPlatformSerialNumber")},
       {"uuid", "UUID", Property("IOPlatformUUID")}}};
}

// ---- security ---------------------------------------------------------------

// A probe answers for a tool that is not there, too, so that is looked at
// first; "" is always there.
bool IsThere(const char* tool) {
  return *tool == '\0' || ::access(tool, X_OK) == 0;
}
Value NoTool(const char* tool) {
  return Unknown(std::string("unknown: there is no ") + tool);
}

struct Probe {
  const char* key;
  const char* label;
  uint8_t (*ask)();
  uint8_t yes;        // The answer that means that it is on.
  const char* off;    // The other answer, in words.
  bool as_root_only;  // Others would be asked for a password, or refused.
  const char* tool;
  const char* second_tool;
};
constexpr Probe kProbes[] = {
    {"firewall", "Packet filter", ZuIsFireWallOn, 1, "off", true,
     "/usr/bin/sudo", "/sbin/pfctl"},
    {"automatic_update_check", "Automatic check for updates",
     ZuIsAutoCheckUpdateEnabled, 0, "off, or never set", false,
     "/usr/bin/defaults", ""},
    {"disk_encryption", "Disk encryption", ZuIsFileVaultEnabled, 1, "off",
     false, "/usr/bin/fdesetup", ""},
    {"program_assessment", "Assessment of programs", ZuIsGateKeeperEnabled, 1,
     "off", false, "/usr/sbin/spctl", ""},
};

Value Ask(const Probe& probe) {
  for (const char* const tool : {probe.tool, probe.second_tool}) {
    if (!IsThere(tool)) return NoTool(tool);
  }
  if (probe.as_root_only && ::geteuid() != 0) {
    return Unknown("unknown: only root may ask");
  }
  const bool on = probe.ask() == probe.yes;
  Value value = Flag(on, "on", probe.off);
  value.tone = on ? Tone::kGood : Tone::kBad;
  return value;
}

Value ManagedSettings() {
  constexpr char kTool[] = "/usr/bin/dscl";
  if (!IsThere(kTool)) return NoTool(kTool);
  const int32_t level = ZuWebSitesRestricationLevel();
  if (level < 0) {
    return Unknown("not asked: nobody at the console, or an administrator");
  }
  return Flag(level != 0);
}

constexpr struct {
  uint32_t flag;
  const char* name;
} kRestrictions[] = {
    {ZU_ROOTLESS_KEXT_SIGNING, "kernel extension signing"},
    {ZU_ROOTLESS_FILESYSTEM, "file system"},
    {ZU_ROOTLESS_TASK_FOR_PID, "task access"},
    {ZU_ROOTLESS_DEBUGGING, "debugging"},
    {ZU_ROOTLESS_APPLE_INTERNAL, "internal"},
    {ZU_ROOTLESS_DTRACE, "tracing"},
    {ZU_ROOTLESS_NVRAM, "NVRAM"},
};

Value RestrictionsOff() {
  constexpr char kTool[] = "/usr/bin/csrutil";
  if (!IsThere(kTool)) return NoTool(kTool);
  uint32_t flags = 0;
  const int32_t status = ZuGetRootlessConfig(&flags);
  if (status == -1) return Unknown("this system has none");
  if (status != 0) return Unknown();
  std::string text;
  std::vector<std::string> names;
  for (const auto& restriction : kRestrictions) {
    if ((flags & restriction.flag) == 0) continue;
    if (!text.empty()) text += ", ";
    text += restriction.name;
    names.push_back(QuoteJson(restriction.name));
  }
  if (names.empty()) return {"no single one", "[]"};
  return {text, JsonArray(names), Tone::kBad};
}

Section Security() {
  std::vector<Fact> facts;
  for (const Probe& probe : kProbes) {
    facts.push_back({probe.key, probe.label, Ask(probe)});
  }
  facts.push_back({"managed_settings", "Managed settings", ManagedSettings()});
  facts.push_back({"restrictions_off", "Restrictions off", RestrictionsOff()});
  uint32_t logging = 0;
  facts.push_back(
      {"shared_region_unnest_logging", "Shared-region logging",
       GetSharedRegionUnnestLogging(&logging) == 0 ? NumberValue(logging)
       : errno == ENOENT ? Unknown("this kernel has no such setting")
                         : Unknown()});
  return {"security", "Security", std::move(facts)};
}

// ---- volumes ----------------------------------------------------------------

Value Volume(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return Unknown(std::strerror(errno));
  }
  const Value local =
      Flag(ZuIsParentPathLocal(path.c_str()) != 0, "local", "not local");
  const int64_t sensitive = ZuIsVolumeCaseSensitive(path.c_str());
  const Value names = sensitive < 0 ? Unknown("case unknown")
                                    : Flag(sensitive != 0, "case-sensitive",
                                           "not case-sensitive");
  return {
      local.text + ", " + names.text,
      "{\"local\":" + local.json + ",\"case_sensitive\":" + names.json + "}"};
}

Section Volumes(const Options& options) {
  std::vector<std::string> paths(options.arguments.begin(),
                                 options.arguments.end());
  if (paths.empty()) {
    paths = {"/"};
    const char* const home = std::getenv("HOME");
    if (home != nullptr && *home == '/') paths.emplace_back(home);
  }
  Section section{"volumes", "Volumes", {}};
  for (const std::string& path : paths) {
    section.facts.push_back({path, Printable(path), Volume(path)});
  }
  return section;
}

// ---- users ------------------------------------------------------------------

Value ActiveUsers() {
  std::vector<char> buffer(1 << 16);
  const auto size = static_cast<int32_t>(buffer.size());
  GetActiveUsers(buffer.data(), &size);
  std::string text;
  std::vector<std::string> names;
  for (const char* name = buffer.data(); *name != '\0';
       name += std::strlen(name) + 1) {
    if (!text.empty()) text += ", ";
    text += Printable(name);
    names.push_back(QuoteJson(name));
  }
  return {names.empty() ? "nobody" : text, JsonArray(names)};
}

Value IdleTime() {
  const uint64_t idle = SystemIdleTime();
  if (idle == UINT64_MAX) return Unknown();
  constexpr double kUnit_s = 1.073741824;
  const auto seconds =
      static_cast<uint64_t>(static_cast<double>(idle) * kUnit_s);
  const std::string text = seconds < 60 ? std::to_string(seconds) + " s"
                           : seconds < 3600
                               ? std::to_string(seconds / 60) + " min"
                               : std::to_string(seconds / 3600) + " h " +
                                     std::to_string(seconds / 60 % 60) + " min";
  return {text, std::to_string(seconds)};
}

Section Users() {
  return {"users",
          "Users",
          {{"logged_in", "Logged in", ActiveUsers()},
           {"idle_s", "Idle for", IdleTime()}}};
}

// ---- agent ------------------------------------------------------------------

// Only looks: the library's own function makes the mark when there is none.
Value AgentMark() {
  sem_t* const mark = ::sem_open(ZU_SEMAPHORE_NAME, 0);
  if (mark != SEM_FAILED) {
    ::sem_close(mark);
    return Flag(true);
  }
  // It is somebody else's, so it is there.
  if (errno == EACCES) return Flag(true);
  return errno == ENOENT ? Flag(false) : Unknown();
}

Section Agent() {
  char version[kTextSize] = "";
  ZuGetProductVersion(version, kTextSize);
  const uint32_t edition = ZuGetInstallationType();
  return {"agent",
          "Agent",
          {{"product_version", "Product version",
            TextOrUnknown(version, "not installed, or unknown")},
           {"edition", "Edition of the interface",
            edition == 0 ? Unknown("not installed, or unknown")
                         : NumberValue(edition)},
           {"marked_running", "Marked as running", AgentMark()}}};
}

// ---- counters ---------------------------------------------------------------

struct Figure {
  const char* key;
  const char* label;
  enum { kCount, kKiB, kPercent } unit;
  // Whether 0 stands for what the system does not have or tell.
  bool zero_is_unknown;
};

// One function's figures, in the order of its slots; those after are left out.
struct FigureTable {
  uint8_t (*read)(uint64_t* slots, uint32_t count);
  uint32_t slots;
  std::vector<Figure> figures;
};

const FigureTable kFigures[] = {
    {ZuGetMemoryStatistics,
     ZU_MEMORY_SLOTS,
     {{"virtual_bytes", "Virtual memory", Figure::kKiB, false},
      {"resident_bytes", "Resident memory", Figure::kKiB, false},
      {"resident_peak_bytes", "Resident memory, peak", Figure::kKiB, false},
      {"internal_bytes", "Internal memory", Figure::kKiB, false},
      {"internal_peak_bytes", "Internal memory, peak", Figure::kKiB, true},
      {"compressed_bytes", "Compressed memory", Figure::kKiB, false},
      {"compressed_peak_bytes", "Compressed memory, peak", Figure::kKiB, true},
      {"purgeable_bytes", "Purgeable memory", Figure::kKiB, true},
      {"kernel_private_bytes", "Kernel memory, private", Figure::kKiB, true},
      {"kernel_shared_bytes", "Kernel memory, shared", Figure::kKiB, true}}},
    {ZuGetMachEventStatistics,
     ZU_EVENT_SLOTS,
     {{"page_faults", "Page faults", Figure::kCount, false},
      {"copy_on_write_faults", "Copy-on-write faults", Figure::kCount, true},
      {"messages_sent", "Messages sent", Figure::kCount, true},
      {"messages_received", "Messages received", Figure::kCount, true},
      {"page_ins", "Page-ins", Figure::kCount, false}}},
    {ZuGetOpenedFileAndSockCnnections,
     ZU_DESCRIPTOR_SLOTS,
     {{"open_files", "Open files", Figure::kCount, false}}},
    {ZuGetMiscStatistics,
     ZU_MISC_SLOTS,
     {{"threads", "Threads", Figure::kCount, false},
      {"memory_pressure", "Memory pressure, all", Figure::kCount, true}}},
    // Last: of the time that all the rest took.
    {ZuGetCPUsages,
     ZU_CPU_SLOTS,
     {{"processors", "Processors", Figure::kCount, true},
      {"measured_s", "Seconds measured", Figure::kCount, false},
      {"processor_percent", "Processor use", Figure::kPercent, false}}},
};

Value ToValue(const Figure& figure, uint64_t number) {
  if (number == 0 && figure.zero_is_unknown) return Unknown();
  if (figure.unit == Figure::kKiB) return SizeValue(number << 10);
  Value value = NumberValue(number);
  if (figure.unit == Figure::kPercent) value.text += " %";
  return value;
}

Section OwnFigures() {
  Section section{"zuctl", "This program, as the library counts", {}};
  for (const FigureTable& table : kFigures) {
    uint64_t slots[ZU_MEMORY_SLOTS] = {};
    const bool told = table.read(slots, table.slots) != 0;
    for (size_t i = 0; i < table.figures.size(); ++i) {
      const Figure& figure = table.figures[i];
      section.facts.push_back({figure.key, figure.label,
                               told ? ToValue(figure, slots[i]) : Unknown()});
    }
  }
  section.facts.push_back(
      {"watchdog", "Watchdog",
       Unknown("none: it guards programs that load the library")});
  return section;
}

std::vector<Section> Collect(const Options& options) {
  const QuietErrors quiet;
  ZuInitializePeroformanceCounters();
  return {Machine(), Security(), Volumes(options),
          Users(),   Agent(),    OwnFigures()};
}

}  // namespace

Exit RunReport(const Options& options) {
  return Print(Collect(options), options);
}

}  // namespace zu::ctl
