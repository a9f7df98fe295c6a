// What the calling process uses, and how long nobody has used the machine.

#include "platform/counters.h"

#include <atomic>
#include <iterator>
#include <optional>
#include <string>

#include "ZuHelper.h"
#include "platform/idle.h"
#include "support/execute_command.h"
#include "support/guarded.h"
#include "support/tool_number.h"

namespace {

namespace platform = zu::platform;
using platform::ProcessTimes;

constexpr uint64_t kUnitsPerSecond = 1'000'000'000;

// What the next call's figures are measured from. Atomic only so that two
// pollers, who disturb each other's intervals anyway, do no more harm than
// that; nothing is published with it.
template <typename T>
class Baseline {
 public:
  T Get() const { return value_.load(std::memory_order_relaxed); }
  // The previous value.
  T Set(T value) { return value_.exchange(value, std::memory_order_relaxed); }

 private:
  std::atomic<T> value_{};
};

constinit Baseline<uint64_t> g_processors;
constinit Baseline<uint64_t> g_start;  // Units of the clock; when first set,
constinit Baseline<uint64_t> g_last;   // and at the last call.
constinit Baseline<double> g_unit_ns;

// Processor time in whole seconds, of live and ended threads together.
// Unsigned, so that nothing overflows whatever the system says.
constinit Baseline<uint32_t> g_user_s;
constinit Baseline<uint32_t> g_system_s;

constexpr int64_t platform::TaskEvents::*kEvents[] = {
    &platform::TaskEvents::faults,
    &platform::TaskEvents::copy_on_write_faults,
    &platform::TaskEvents::messages_sent,
    &platform::TaskEvents::messages_received,
    &platform::TaskEvents::page_ins,
};
constinit Baseline<int64_t> g_events[std::size(kEvents)];

bool HasRoom(const uint64_t* slots, uint32_t count, uint32_t least) {
  return slots != nullptr && count >= least;
}

// Without the fraction: hosts know the figures as they come out without it.
double ReadUnit_ns() {
  const platform::ClockRate rate = platform::MonotonicClockRate();
  const uint32_t whole_ns =
      rate.denominator == 0 ? 0 : rate.numerator / rate.denominator;
  return whole_ns;
}

// The seconds since the last call. None when the system does not tell.
struct ProcessorTime {
  uint32_t user_s = 0;
  uint32_t system_s = 0;
};
ProcessorTime TakeProcessorTime() {
  const std::optional<ProcessTimes> live = platform::ReadProcessTimes();
  if (!live) return {};
  const ProcessTimes ended = platform::ReadTerminatedThreadTimes();
  const auto user_s =
      static_cast<uint32_t>(live->user_s) + static_cast<uint32_t>(ended.user_s);
  const auto system_s = static_cast<uint32_t>(live->system_s) +
                        static_cast<uint32_t>(ended.system_s);
  return {user_s - g_user_s.Set(user_s), system_s - g_system_s.Set(system_s)};
}

// Of one processor. Without time in between there is no share of it, either.
double Percent(uint32_t used_s, double elapsed_s) {
  const auto delta_s = static_cast<int32_t>(used_s);
  return delta_s > 0 && elapsed_s > 0 ? delta_s / elapsed_s * 100 : 0;
}

// Truncates a number that is not negative.
uint64_t ToSlot(double value) {
  constexpr double kEnd = 18446744073709551616.0;
  return value < kEnd ? static_cast<uint64_t>(value) : UINT64_MAX;
}

uint64_t ToKiB(uint64_t bytes) { return bytes >> 10; }

uint64_t Held(uint64_t allocated, uint64_t freed) {
  return allocated >= freed ? allocated - freed : 0;
}

bool FillDescriptors(uint64_t* slots) {
  const auto descriptors = platform::ListDescriptors();
  if (!descriptors) return false;
  uint64_t sockets = 0;
  for (const platform::Descriptor& descriptor : *descriptors) {
    if (!descriptor.is_socket) continue;
    // No system gives more than the record's size, so a process with a socket
    // gets no answer. Hosts have come to rely on that: it is deliberate.
    if (platform::ReadSocketInformation(descriptor.number) <=
        platform::kSocketInformationSize) {
      return false;
    }
    ++sockets;
  }
  slots[0] = descriptors->size() - sockets;
  slots[1] = sockets;
  return true;
}

bool FillMisc(uint64_t* slots) {
  const std::optional<uint64_t> threads = platform::CountThreads();
  if (!threads) return false;
  slots[0] = *threads;
  const std::optional<std::string> output = zu::ExecuteCommand::Run(
      "/usr/sbin/sysctl", {"kern.memorystatus_vm_pressure_level"});
  slots[1] = static_cast<uint64_t>(zu::ParseToolNumber(output.value_or("")));
  return true;
}

}  // namespace

void InitializeCounters(void) {
  uint64_t processors = platform::ReadAvailableProcessors();
  if (processors == 0) processors = platform::ReadProcessors();
  g_processors.Set(processors == 0 ? 1 : processors);
  const uint64_t now = platform::ReadMonotonicClock();
  g_start.Set(now);
  g_last.Set(now);
  g_unit_ns.Set(ReadUnit_ns());
  TakeProcessorTime();
}

// The seconds are whole before they are scaled; hosts know them like that, too.
uint8_t GetCPUsages(uint64_t* slots, uint32_t count) {
  if (!HasRoom(slots, count, ZU_CPU_SLOTS)) return 0;
  const uint64_t now = platform::ReadMonotonicClock();
  // A host that never set the baselines measures from the clock's start.
  double unit_ns = g_unit_ns.Get();
  if (unit_ns == 0) unit_ns = ReadUnit_ns();
  const uint64_t elapsed = now - g_last.Set(now);
  const double elapsed_s =
      static_cast<double>(elapsed) * unit_ns / kUnitsPerSecond;
  const ProcessorTime used = TakeProcessorTime();
  const double user = Percent(used.user_s, elapsed_s);
  const double system = Percent(used.system_s, elapsed_s);
  slots[0] = g_processors.Get();
  const uint64_t whole = (now - g_start.Get()) / kUnitsPerSecond;
  slots[1] = ToSlot(static_cast<double>(whole) * unit_ns);
  slots[2] = ToSlot(user + system);
  slots[3] = ToSlot(user);
  slots[4] = ToSlot(system);
  return 1;
}

uint8_t GetMemoryStatistics(uint64_t* slots, uint32_t count) {
  if (!HasRoom(slots, count, ZU_MEMORY_SLOTS)) return 0;
  const auto figures = platform::ReadMemoryFigures();
  if (!figures) return 0;
  slots[0] = ToKiB(figures->virtual_size);
  slots[1] = ToKiB(figures->resident);
  slots[2] = ToKiB(figures->resident_peak);
  slots[3] = ToKiB(figures->internal);
  slots[4] = ToKiB(figures->internal_peak);
  slots[5] = ToKiB(figures->compressed);
  slots[6] = ToKiB(figures->compressed_peak);
  slots[7] = ToKiB(figures->purgeable);
  const auto kernel = platform::ReadKernelMemory();
  if (!kernel) return 0;
  slots[8] = ToKiB(Held(kernel->private_allocated, kernel->private_freed));
  slots[9] = ToKiB(Held(kernel->shared_allocated, kernel->shared_freed));
  return 1;
}

uint8_t GetMachEventStatistics(uint64_t* slots, uint32_t count) {
  if (!HasRoom(slots, count, ZU_EVENT_SLOTS)) return 0;
  const auto events = platform::ReadTaskEvents();
  if (!events) return 0;
  for (size_t i = 0; i < std::size(kEvents); ++i) {
    const int64_t now = (*events).*kEvents[i];
    slots[i] = static_cast<uint64_t>(now - g_events[i].Set(now));
  }
  return 1;
}

uint8_t GetOpenedFileAndSockCnnections(uint64_t* slots, uint32_t count) {
  if (!HasRoom(slots, count, ZU_DESCRIPTOR_SLOTS)) return 0;
  return zu::Guarded(__func__, uint8_t{0}, [slots] {
    return static_cast<uint8_t>(FillDescriptors(slots));
  });
}

uint8_t GetMiscStatistics(uint64_t* slots, uint32_t count) {
  if (!HasRoom(slots, count, ZU_MISC_SLOTS)) return 0;
  return zu::Guarded(__func__, uint8_t{0},
                     [slots] { return static_cast<uint8_t>(FillMisc(slots)); });
}

uint64_t SystemIdleTime(void) {
  constexpr uint64_t kUnknown = UINT64_MAX;
  return zu::Guarded(__func__, kUnknown, [] {
    // A shift, not a division: hosts know the unit.
    const std::optional<int64_t> idle_ns = platform::ReadIdleTime_ns();
    return idle_ns ? static_cast<uint64_t>(*idle_ns >> 30) : kUnknown;
  });
}
