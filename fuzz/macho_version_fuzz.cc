// The versions that a Mach-O file carries. The input is all of the file.

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ZuHelper.h"
#include "support/file_descriptor.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

void Read(const char* path) {
  uint32_t version = 1;
  Require(ZuGetDylibVersion(path, &version) == 1 || version == 1);
  for (const int32_t size : {0, 1, 9, 4096}) {
    // Just as large as the function is told, so that a byte more is noticed.
    std::vector<char> text(static_cast<size_t>(size), '#');
    const uint32_t result = ZuGetZubrantDylibVersion(path, text.data(), size);
    Require(result == 0 || std::all_of(text.begin(), text.end(),
                                       [](char c) { return c == '#'; }));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const zu::FileDescriptor file(::memfd_create("input", MFD_CLOEXEC));
  Require(::write(file.get(), data, size) == static_cast<ssize_t>(size));
  Read(("/proc/self/fd/" + std::to_string(file.get())).c_str());
  return 0;
}
