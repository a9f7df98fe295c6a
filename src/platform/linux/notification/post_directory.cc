#include "platform/linux/notification/post_directory.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "build_values.h"

namespace zu::platform {
namespace {

constexpr char kDirectory[] = ZU_NOTIFICATION_DIRECTORY;
constexpr std::string_view kPath = kDirectory;
constexpr size_t kNameAt = kPath.rfind('/') + 1;
// Like /tmp: everybody makes files, and removes none but their own.
constexpr mode_t kDirectoryMode = 01777;
constexpr char kSeparator = '~';  // Between the stem and the random end.
constexpr size_t kRandomDigits = 16;
constexpr size_t kLongestStem = 255 - 1 - kRandomDigits;

std::string Hexadecimal(uint64_t number) {
  char text[kRandomDigits + 1];
  std::snprintf(text, sizeof text, "%016llx",
                static_cast<unsigned long long>(number));
  return text;
}

// FNV-1a, which is the same in every build. Two names with one value only wake
// each other's observers.
uint64_t Hash(std::string_view text) {
  uint64_t hash = 14695981039346656037u;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  }
  return hash;
}

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
}

// Under another name first, so that it has its mode, whatever the umask, once
// others can find it.
bool MakeDirectory() {
  std::string stage = std::string(kDirectory) + ".XXXXXX";
  if (::mkdtemp(stage.data()) == nullptr) return false;
  if (::chmod(stage.c_str(), kDirectoryMode) == 0 &&
      ::renameat2(AT_FDCWD, stage.c_str(), AT_FDCWD, kDirectory,
                  RENAME_NOREPLACE) == 0) {
    return true;
  }
  const int error = errno;
  ::rmdir(stage.c_str());
  errno = error;
  return error == EEXIST;  // Somebody else was faster.
}

FileDescriptor OpenDirectory() {
  return FileDescriptor(
      ::open(kDirectory, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

std::string PostStem(std::string_view name) {
  std::string stem;
  for (const char c : name) {
    if (IsPlain(c)) {
      stem.push_back(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X",
                    static_cast<unsigned>(static_cast<unsigned char>(c)));
      stem.append(escaped);
    }
  }
  if (stem.size() > kLongestStem) {
    // "%-" begins no escaped character, so no short name ends like that.
    const std::string end = "%-" + Hexadecimal(Hash(name));
    stem.replace(kLongestStem - end.size(), stem.npos, end);
  }
  return stem;
}

bool PostFile(std::string_view stem) {
  FileDescriptor directory = OpenDirectory();
  if (!directory.valid() && errno == ENOENT && MakeDirectory()) {
    directory = OpenDirectory();
  }
  if (!directory.valid()) return false;
  uint64_t random = 0;
  if (::getrandom(&random, sizeof random, 0) != sizeof random) return false;
  const std::string file = std::string(stem) + kSeparator + Hexadecimal(random);
  if (::mknodat(directory.get(), file.c_str(), S_IFREG, 0) != 0) return false;
  ::unlinkat(directory.get(), file.c_str(), 0);
  return true;
}

bool PostWatch::Open() {
  if (inotify_.valid()) return true;
  inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  parent_ = ::inotify_add_watch(
      inotify_.get(), std::string(kPath.substr(0, kNameAt)).c_str(),
      IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR);
  if (parent_ == -1) {
    Close();
    return false;
  }
  Attach();
  return true;
}

void PostWatch::Close() {
  inotify_.reset();
  parent_ = directory_ = -1;
}

// Watches what has the directory's name now; true when that is another one than
// before.
bool PostWatch::Attach() {
  const auto watch = [this] {
    return ::inotify_add_watch(inotify_.get(), kDirectory,
                               IN_CREATE | IN_ONLYDIR | IN_DONT_FOLLOW);
  };
  int now = watch();
  if (now == -1 && errno == ENOENT && MakeDirectory()) now = watch();
  if (now == directory_) return false;
  // It may only have been moved away.
  if (directory_ != -1) ::inotify_rm_watch(inotify_.get(), directory_);
  directory_ = now;
  return now != -1;
}

Posts PostWatch::Read() {
  alignas(inotify_event) char buffer[16384];
  const ssize_t size = RetryOnInterrupt(
      [&] { return ::read(inotify_.get(), buffer, sizeof buffer); });
  Posts posts;
  bool attach = false;
  for (ssize_t offset = 0; offset < size;) {
    const auto& event =
        *reinterpret_cast<const inotify_event*>(buffer + offset);
    offset += static_cast<ssize_t>(sizeof event + event.len);
    const std::string_view file(event.len != 0 ? event.name : "");
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      posts.any = attach = true;
    } else if (event.wd == parent_) {
      attach |= file == kPath.substr(kNameAt);
    } else if (event.wd == directory_) {
      const size_t end = file.rfind(kSeparator);
      if ((event.mask & IN_IGNORED) != 0) {
        directory_ = -1;  // The kernel has let go of it.
        attach = true;
      } else if (end != file.npos) {
        posts.stems.emplace(file.substr(0, end));
      }
    }
  }
  // A directory that is new here may have had posts before it was watched.
  if (attach && Attach()) posts.any = true;
  return posts;
}

}  // namespace zu::platform
