#include "platform/process_facts.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/linux/process_file.h"
#include "support/file_descriptor.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

#if defined(__aarch64__)
constexpr uint32_t kNativeCpuType = kCpuTypeArm64;
#else
constexpr uint32_t kNativeCpuType = kCpuTypeX86_64;
#endif
constexpr uint32_t k64BitFlag = 0x01000000;

// The part that is the same in files of 32 and of 64 bits.
constexpr size_t kElfStart = offsetof(Elf64_Ehdr, e_version);

// Mach-O's numbers are those of processor families, and a flag on top for code
// of 64 bits. 32-bit code of another family gives 0. The machines that count
// here are little-endian.
std::optional<uint32_t> ParseCpuType(
    std::span<const unsigned char, kElfStart> elf) {
  if (std::memcmp(elf.data(), ELFMAG, SELFMAG) != 0) return std::nullopt;
  const unsigned char* const bytes = &elf[offsetof(Elf64_Ehdr, e_machine)];
  uint32_t family = 0;
  switch (bytes[1] << 8 | bytes[0]) {
    case EM_386:
    case EM_X86_64:
      family = kCpuTypeX86_64 & 0xFF;
      break;
    case EM_ARM:
    case EM_AARCH64:
      family = kCpuTypeArm64 & 0xFF;
      break;
  }
  if (elf[EI_CLASS] != ELFCLASS64) return family;
  if (family == 0) return std::nullopt;
  return family | k64BitFlag;
}

// Whether one of the auxiliary vector's pairs of numbers, which are as wide as
// the process's addresses, says that program headers have that size.
template <typename Number>
bool HasHeaderSize(const void* vector, size_t vector_size, size_t size) {
  Number pair[2];
  for (size_t at = 0; at + sizeof pair <= vector_size; at += sizeof pair) {
    std::memcpy(pair, static_cast<const char*>(vector) + at, sizeof pair);
    if (pair[0] == AT_PHENT && pair[1] == size) return true;
  }
  return false;
}

struct Identity {
  uint64_t device[2];
  uint64_t number;
  bool operator==(const Identity&) const = default;
};

// The file's, as far as it is known here: a server that has it is not asked.
std::optional<Identity> Identify(const std::string& path) {
  struct statx status;
  if (::statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &status) !=
      0) {
    return std::nullopt;
  }
  return Identity{{status.stx_dev_major, status.stx_dev_minor}, status.stx_ino};
}

}  // namespace

std::optional<uint32_t> ReadCpuType(int32_t pid) {
  // The kernel's own file first: to read the executable, one may have to wait
  // for a program that serves it.
  char vector[4096];
  const FileDescriptor facts = OpenProcessFile(pid, "auxv");
  const ssize_t vector_size = RetryOnInterrupt(
      [&] { return ::read(facts.get(), vector, sizeof vector); });
  if (vector_size >= 0) {
    const auto bytes = static_cast<size_t>(vector_size);
    if (HasHeaderSize<uint64_t>(vector, bytes, sizeof(Elf64_Phdr))) {
      return kNativeCpuType;
    }
    if (HasHeaderSize<uint32_t>(vector, bytes, sizeof(Elf32_Phdr))) {
      return kNativeCpuType & ~k64BitFlag;
    }
    return std::nullopt;
  }
  const FileDescriptor file =
      OpenProcessFile(pid, "exe", O_NOCTTY | O_NONBLOCK);
  unsigned char elf[kElfStart];
  const ssize_t size =
      RetryOnInterrupt([&] { return ::read(file.get(), elf, sizeof elf); });
  if (size != sizeof elf) return std::nullopt;
  return ParseCpuType(elf);
}

std::optional<std::string> ReadExecutablePath(int32_t pid) {
  const std::string link = ProcessPath(pid, "exe").text;
  char text[PATH_MAX];
  const ssize_t size = ::readlink(link.c_str(), text, sizeof text);
  if (size < 1 || size == sizeof text) return std::nullopt;
  std::string path(text, static_cast<size_t>(size));
  // What the kernel says of a name that is gone or another file's by now; but
  // then a file may really be called so.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) {
    const auto running = Identify(link);
    if (!running) return std::nullopt;
    if (Identify(path) != running) path.resize(path.size() - kDeleted.size());
  }
  return path;
}

std::optional<std::string> ReadProcessName() {
  const std::string_view name = program_invocation_short_name;
  if (name.empty() || !IsValidUtf8(name)) return std::nullopt;
  return std::string(name);
}

}  // namespace zu::platform
