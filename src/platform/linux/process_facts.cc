#include "platform/process_facts.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>
#include <string_view>

#include "support/file_descriptor.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

std::string LinkPath(int32_t pid) {
  return "/proc/" + std::to_string(pid) + "/exe";
}

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
  constexpr uint32_t k64BitFlag = 0x01000000;
  if (elf[EI_CLASS] != ELFCLASS64) return family;
  if (family == 0) return std::nullopt;
  return family | k64BitFlag;
}

}  // namespace

std::optional<uint32_t> ReadCpuType(int32_t pid) {
  const FileDescriptor file(RetryOnInterrupt([=] {
    return ::open(LinkPath(pid).c_str(),
                  O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  }));
  unsigned char elf[kElfStart];
  const ssize_t size =
      RetryOnInterrupt([&] { return ::read(file.get(), elf, sizeof elf); });
  if (size != sizeof elf) return std::nullopt;
  return ParseCpuType(elf);
}

std::optional<std::string> ReadExecutablePath(int32_t pid) {
  const std::string link = LinkPath(pid);
  char text[PATH_MAX];
  const ssize_t size = ::readlink(link.c_str(), text, sizeof text);
  if (size < 1 || size == sizeof text) return std::nullopt;
  std::string path(text, static_cast<size_t>(size));
  // What the kernel says of a name that is gone or another file's by now; but
  // then a file may really be called so.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) {
    struct stat running;
    struct stat named;
    if (::stat(link.c_str(), &running) != 0) return std::nullopt;
    if (::stat(path.c_str(), &named) != 0 || named.st_dev != running.st_dev ||
        named.st_ino != running.st_ino) {
      path.resize(path.size() - kDeleted.size());
    }
  }
  return path;
}

std::optional<std::string> ReadProcessName() {
  const std::string_view name = program_invocation_short_name;
  if (name.empty() || !IsValidUtf8(name)) return std::nullopt;
  return std::string(name);
}

}  // namespace zu::platform
