#include "platform/counters.h"

#include <libproc.h>
#include <mach/mach.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include "platform/macos/task_information.h"

namespace zu::platform {
namespace {

uint64_t ReadHardware(int name) {
  int path[] = {CTL_HW, name};
  int value = 0;
  size_t size = sizeof value;
  if (::sysctl(path, 2, &value, &size, nullptr, 0) != 0 || value < 0) return 0;
  return static_cast<uint64_t>(value);
}

}  // namespace

uint64_t ReadAvailableProcessors() { return ReadHardware(HW_AVAILCPU); }

uint64_t ReadProcessors() { return ReadHardware(HW_NCPU); }

ProcessTimes ReadTerminatedThreadTimes() {
  mach_task_basic_info_data_t info{};
  if (!ReadTask(MACH_TASK_BASIC_INFO, MACH_TASK_BASIC_INFO_COUNT, info)) {
    return {};
  }
  return {.user_s = info.user_time.seconds,
          .user_us = info.user_time.microseconds,
          .system_s = info.system_time.seconds,
          .system_us = info.system_time.microseconds};
}

std::optional<MemoryFigures> ReadMemoryFigures() {
  task_vm_info_data_t info{};
  if (!ReadTask(TASK_VM_INFO, TASK_VM_INFO_COUNT, info)) return std::nullopt;
  return MemoryFigures{.virtual_size = info.virtual_size,
                       .resident = info.resident_size,
                       .resident_peak = info.resident_size_peak,
                       .internal = info.internal,
                       .internal_peak = info.internal_peak,
                       .compressed = info.compressed,
                       .compressed_peak = info.compressed_peak,
                       .purgeable = info.purgeable_volatile_resident};
}

std::optional<KernelMemory> ReadKernelMemory() {
  task_kernelmemory_info_data_t info{};
  if (!ReadTask(TASK_KERNELMEMORY_INFO, TASK_KERNELMEMORY_INFO_COUNT, info)) {
    return std::nullopt;
  }
  return KernelMemory{.private_allocated = info.total_palloc,
                      .private_freed = info.total_pfree,
                      .shared_allocated = info.total_salloc,
                      .shared_freed = info.total_sfree};
}

std::optional<TaskEvents> ReadTaskEvents() {
  task_events_info_data_t info{};
  if (!ReadTask(TASK_EVENTS_INFO, TASK_EVENTS_INFO_COUNT, info)) {
    return std::nullopt;
  }
  return TaskEvents{.faults = info.faults,
                    .copy_on_write_faults = info.cow_faults,
                    .messages_sent = info.messages_sent,
                    .messages_received = info.messages_received,
                    .page_ins = info.pageins};
}

std::optional<std::vector<Descriptor>> ListDescriptors() {
  const pid_t self = ::getpid();
  const int room = ::proc_pidinfo(self, PROC_PIDLISTFDS, 0, nullptr, 0);
  if (room <= 0) return std::nullopt;
  std::vector<proc_fdinfo> entries(static_cast<size_t>(room) /
                                   PROC_PIDLISTFD_SIZE);
  const int size =
      ::proc_pidinfo(self, PROC_PIDLISTFDS, 0, entries.data(),
                     static_cast<int>(entries.size() * PROC_PIDLISTFD_SIZE));
  if (size <= 0) return std::nullopt;
  entries.resize(static_cast<size_t>(size) / PROC_PIDLISTFD_SIZE);
  std::vector<Descriptor> descriptors;
  for (const proc_fdinfo& entry : entries) {
    descriptors.push_back(
        {entry.proc_fd, entry.proc_fdtype == PROX_FDTYPE_SOCKET});
  }
  return descriptors;
}

size_t ReadSocketInformation(int32_t descriptor) {
  static_assert(sizeof(socket_fdinfo) == kSocketInformationSize);
  socket_fdinfo info{};
  const int size = ::proc_pidfdinfo(::getpid(), descriptor,
                                    PROC_PIDFDSOCKETINFO, &info, sizeof info);
  return size < 0 ? 0 : static_cast<size_t>(size);
}

std::optional<uint64_t> CountThreads() {
  thread_act_array_t threads = nullptr;
  mach_msg_type_number_t count = 0;
  if (::task_threads(::mach_task_self(), &threads, &count) != KERN_SUCCESS) {
    return std::nullopt;
  }
  for (mach_msg_type_number_t i = 0; i < count; ++i) {
    ::mach_port_deallocate(::mach_task_self(), threads[i]);
  }
  ::vm_deallocate(::mach_task_self(), reinterpret_cast<vm_address_t>(threads),
                  count * sizeof *threads);
  return count;
}

}  // namespace zu::platform
