// Versions that Mach-O files carry, read from files that nobody vouches for.

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "ZuHelper.h"
#include "support/file_descriptor.h"
#include "support/guarded.h"
#include "support/macho.h"
#include "support/read_at.h"

namespace {

using zu::ByteOrder;
using Bytes = std::vector<std::byte>;

// What one walk takes of a file's headers, those of all slices together. Real
// files have some kilobytes; others may have thousands of slices that share
// their load commands, and be said to be of any size.
constexpr uint64_t kMaxHeaders = 16 * 1024 * 1024;

constexpr uint32_t kLibraryIdCommand = 0xd;
constexpr size_t kLibraryIdCommandSize = 24;
constexpr size_t kLibraryVersionOffset = 16;  // The compatibility one follows.
constexpr size_t kLibraryVersionsSize = 8;

struct LoadCommand {
  uint64_t slice_offset;
  ByteOrder order;
  std::span<const std::byte> bytes;
};

class MachOFile {
 public:
  // Whether it accepts a load command.
  using Visitor = std::function<bool(const LoadCommand&)>;

  // Absent when it is no regular file; what may block is not waited for.
  static std::optional<MachOFile> Open(const char* path);

  // Calls `visit` for all load commands of a type, slice after slice in the
  // file's order whatever processor they are for, until it accepts one. False
  // when it accepts none; what breaks the format ends a slice, or the file.
  bool Visit(uint32_t type, const Visitor& visit);

  // False when the file does not have all of that.
  bool Read(uint64_t offset, std::span<std::byte> destination) const;

 private:
  MachOFile(zu::FileDescriptor file, uint64_t size)
      : file_(std::move(file)), size_(size) {}

  bool VisitSlice(uint64_t offset, uint32_t type, const Visitor& visit);
  // Absent also when it is more than a walk may take.
  std::optional<Bytes> TakeHeaders(uint64_t offset, uint64_t size);

  zu::FileDescriptor file_;
  uint64_t size_;
  uint64_t budget_ = kMaxHeaders;
};

std::optional<MachOFile> MachOFile::Open(const char* path) {
  zu::FileDescriptor file(zu::RetryOnInterrupt([path] {
    return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }));
  struct stat status;
  if (!file.valid() || ::fstat(file.get(), &status) != 0 ||
      !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return MachOFile(std::move(file), static_cast<uint64_t>(status.st_size));
}

bool MachOFile::Read(uint64_t offset, std::span<std::byte> destination) const {
  return destination.size() <= size_ && offset <= size_ - destination.size() &&
         zu::ReadAt(file_.get(), offset, destination);
}

std::optional<Bytes> MachOFile::TakeHeaders(uint64_t offset, uint64_t size) {
  if (size > budget_ || size > size_) return std::nullopt;
  Bytes bytes(static_cast<size_t>(size));
  if (!Read(offset, bytes)) return std::nullopt;
  budget_ -= size;
  return bytes;
}

bool MachOFile::VisitSlice(uint64_t offset, uint32_t type,
                           const Visitor& visit) {
  const std::optional<Bytes> head =
      TakeHeaders(offset, zu::MachOHeader::kMaxSize);
  if (!head) return false;
  const std::optional<zu::MachOHeader> header = zu::ParseMachOHeader(*head);
  if (!header) return false;
  const std::optional<Bytes> image =
      TakeHeaders(offset, uint64_t{header->size()} + header->commands_size);
  if (!image) return false;
  bool accepted = false;
  // It ends early when a command breaks the format, too.
  (void)zu::VisitLoadCommands(
      *header, *image,
      [&](uint32_t command_type, std::span<const std::byte> command) {
        accepted =
            command_type == type && visit({offset, header->order, command});
        return !accepted;
      });
  return accepted;
}

// Of universal files, whose headers the system writes in big-endian order.
std::optional<ByteOrder> UniversalOrder(std::span<const std::byte> head) {
  for (const ByteOrder order : {ByteOrder::kBig, ByteOrder::kLittle}) {
    if (zu::LoadInteger<uint32_t>(head, 0, order) == zu::kUniversalMagic) {
      return order;
    }
  }
  return std::nullopt;
}

bool MachOFile::Visit(uint32_t type, const Visitor& visit) {
  const auto head = TakeHeaders(0, zu::kUniversalHeaderSize);
  if (!head) return false;
  const std::optional<ByteOrder> order = UniversalOrder(*head);
  if (!order) return VisitSlice(0, type, visit);
  const size_t entry_size = zu::kUniversalEntry32.size;
  const auto count = zu::LoadInteger<uint32_t>(*head, 4, *order);
  const auto entries =
      TakeHeaders(zu::kUniversalHeaderSize, uint64_t{count} * entry_size);
  if (!entries) return false;
  for (size_t entry = 0; entry < entries->size(); entry += entry_size) {
    const auto offset = zu::LoadInteger<uint32_t>(
        *entries, entry + zu::kUniversalRangeOffset, *order);
    if (VisitSlice(offset, type, visit)) return true;
  }
  return false;
}

uint32_t ReadVersionText(const char* path, std::span<std::byte> buffer) {
  std::optional<MachOFile> file = MachOFile::Open(path);
  if (!file) return ZU_MACHO_FAILED;
  bool found = false;
  uint64_t needed = 0;
  // 64-bit slices have segments of another type: they do not count.
  const bool accepted =
      file->Visit(zu::kSegmentCommand32, [&](const LoadCommand& command) {
        // A segment behind the one whose text was too long ends the walk as if
        // the text had been read; hosts know it so.
        if (found) return true;
        const auto segment =
            zu::ParseSegment(zu::kSegment32, command.order, command.bytes);
        if (!segment || segment->name != "__DATA") return false;
        for (const zu::Section& section : segment->sections) {
          if (section.name != "__version") continue;
          if (section.size < buffer.size()) {
            return file->Read(command.slice_offset + section.offset,
                              buffer.first(static_cast<size_t>(section.size)));
          }
          found = true;
          needed = segment->file_size;
        }
        return false;
      });
  if (accepted) return 0;
  return needed == 0 ? ZU_MACHO_FAILED : static_cast<uint32_t>(needed);
}

}  // namespace

uint32_t machoGetDylibInfo(const char* path, void* info, uint64_t size) {
  if (path == nullptr || info == nullptr || size != kLibraryVersionsSize) {
    return ZU_MACHO_FAILED;
  }
  return zu::Guarded(__func__, ZU_MACHO_FAILED, [=] {
    std::optional<MachOFile> file = MachOFile::Open(path);
    const bool accepted =
        file &&
        file->Visit(kLibraryIdCommand, [info](const LoadCommand& command) {
          if (command.bytes.size() < kLibraryIdCommandSize) return false;
          // As they are, in the slice's byte order.
          std::memcpy(info, &command.bytes[kLibraryVersionOffset],
                      kLibraryVersionsSize);
          return true;
        });
    return accepted ? 0 : ZU_MACHO_FAILED;
  });
}

uint32_t machoGetVersionString(const char* path, char* buffer, int32_t size) {
  if (path == nullptr) return ZU_MACHO_FAILED;
  return zu::Guarded(__func__, ZU_MACHO_FAILED, [=] {
    const size_t capacity =
        buffer == nullptr ? 0 : static_cast<size_t>(std::max(size, 0));
    return ReadVersionText(path,
                           std::as_writable_bytes(std::span(buffer, capacity)));
  });
}
