// Entry points of the performance counters: forwarding only.

#include "ZuHelper.h"

void ZuInitializePeroformanceCounters(void) { InitializeCounters(); }

uint8_t ZuGetCPUsages(uint64_t* slots, uint32_t count) {
  return GetCPUsages(slots, count);
}

uint8_t ZuGetMemoryStatistics(uint64_t* slots, uint32_t count) {
  return GetMemoryStatistics(slots, count);
}

uint8_t ZuGetMachEventStatistics(uint64_t* slots, uint32_t count) {
  return GetMachEventStatistics(slots, count);
}

uint8_t ZuGetOpenedFileAndSockCnnections(uint64_t* slots, uint32_t count) {
  return GetOpenedFileAndSockCnnections(slots, count);
}

uint8_t ZuGetMiscStatistics(uint64_t* slots, uint32_t count) {
  return GetMiscStatistics(slots, count);
}
