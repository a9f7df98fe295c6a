#include "platform/linux/status_file.h"

#include <fcntl.h>
#include <algorithm>
#include <charconv>

#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// Reads a small file line by line. Lines that are longer than the buffer (a
// list of groups may be) come in pieces.
class LineReader {
 public:
  explicit LineReader(const char* path)
      : file_(RetryOnInterrupt(
            [=] { return ::open(path, O_RDONLY | O_CLOEXEC); })) {}

  std::optional<std::string_view> Next() {
    rest_.remove_prefix(taken_);
    size_t end = rest_.find('\n');
    if (end == rest_.npos) {
      Refill();
      if (rest_.empty()) return std::nullopt;
      end = rest_.find('\n');
    }
    taken_ = end == rest_.npos ? rest_.size() : end + 1;
    return rest_.substr(0, taken_);
  }

 private:
  void Refill() {
    size_t size = rest_.size();
    std::copy(rest_.begin(), rest_.end(), buffer_);
    while (size < sizeof buffer_) {
      const ssize_t count = RetryOnInterrupt([&] {
        return ::read(file_.get(), buffer_ + size, sizeof buffer_ - size);
      });
      if (count <= 0) break;
      size += static_cast<size_t>(count);
    }
    rest_ = {buffer_, size};
  }

  FileDescriptor file_;
  char buffer_[4096];
  std::string_view rest_;  // Of the buffer, from the last line on.
  size_t taken_ = 0;       // That line's size.
};

// A line is "VmRSS:\t    1234 kB".
std::optional<uint64_t> ParseBytes(std::string_view line,
                                   std::string_view name) {
  if (!line.starts_with(name)) return std::nullopt;
  const size_t digits = line.find_first_not_of(" \t", name.size());
  if (digits == line.npos) return std::nullopt;
  uint64_t kilobytes = 0;
  const auto [end, error] = std::from_chars(
      line.data() + digits, line.data() + line.size(), kilobytes);
  if (error != std::errc()) return std::nullopt;
  return kilobytes * 1024;
}

}  // namespace

void ReadStatus(std::span<StatusField> fields) {
  LineReader status("/proc/self/status");
  while (const auto line = status.Next()) {
    for (StatusField& field : fields) {
      if (!field.bytes) field.bytes = ParseBytes(*line, field.name);
    }
  }
}

}  // namespace zu::platform
