#include "platform/linux/signing/trust/trust_anchors.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <ctime>
#include <optional>
#include <string_view>

#include "platform/linux/signing/file_content.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// Lists can be long.
constexpr off_t kMaxAnchorFileSize = 8 << 20;

// A change in the same tick of the file system's clock as an earlier one
// leaves no trace. Two seconds is the coarsest tick there is.
constexpr time_t kClockTick = 2;

struct DirectoryTraits {
  using Value = DIR*;
  static constexpr DIR* kNone = nullptr;
  static void Close(Value directory) noexcept { ::closedir(directory); }
};
using Directory = ScopedHandle<DirectoryTraits>;

void FreeOpenSsl(void* memory) { OPENSSL_free(memory); }
using OpenSslText = OpenSslPtr<char, &FreeOpenSsl>;
using OpenSslBytes = OpenSslPtr<unsigned char, &FreeOpenSsl>;

FileDescriptor OpenAt(int directory, const char* name, int flags) {
  // Not blocked by a pipe that somebody put there.
  return FileDescriptor(RetryOnInterrupt([&] {
    return ::openat(directory, name,
                    flags | O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  }));
}

bool IsSafe(const struct stat& status) {
  return (status.st_uid == 0 || status.st_uid == ::geteuid()) &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Adds what a run of DER holds at its start; false when that is neither.
bool TakeOne(const CryptoContext& context, std::span<const std::byte>& der,
             TrustSet& set) {
  if (const CertificatePtr certificate = context.TakeCertificate(der)) {
    X509_STORE_add_cert(set.store.get(), certificate.get());
    return true;
  }
  if (CrlPtr list = context.TakeCrl(der)) {
    set.lists.push_back(std::move(list));
    return true;
  }
  return false;
}

void AddPem(const CryptoContext& context, std::string_view text,
            TrustSet& set) {
  const BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  while (bio && BIO_pending(bio.get()) > 0) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long size = 0;
    // Fails at a block that is broken, or at the end; goes on behind it.
    if (PEM_read_bio(bio.get(), &name, &header, &data, &size) != 1) continue;
    const OpenSslText owned_name(name);
    const OpenSslText owned_header(header);
    const OpenSslBytes owned_data(data);
    const std::string_view kind = name;
    // A header belongs to an encrypted block.
    if (*header == '\0' &&
        (kind == PEM_STRING_X509 || kind == PEM_STRING_X509_OLD ||
         kind == PEM_STRING_X509_CRL)) {
      std::span<const std::byte> der =
          std::as_bytes(std::span(data, static_cast<size_t>(size)));
      TakeOne(context, der, set);
    }
  }
}

void AddAll(const CryptoContext& context, std::span<const std::byte> bytes,
            TrustSet& set) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()),
                              bytes.size());
  if (text.find("-----BEGIN ") != text.npos) {
    AddPem(context, text, set);
    return;
  }
  while (TakeOne(context, bytes, set)) {
  }
}

}  // namespace

struct TrustAnchors::Stamp {
  explicit Stamp(const struct stat& status)
      : device(status.st_dev),
        file(status.st_ino),
        owner(status.st_uid),
        mode(status.st_mode),
        size(status.st_size),
        changed_s(status.st_ctim.tv_sec),
        changed_ns(status.st_ctim.tv_nsec) {}
  bool operator==(const Stamp&) const = default;

  dev_t device;
  ino_t file;
  uid_t owner;
  mode_t mode;
  off_t size;
  // When anything changed, the modification time included: unlike that, it
  // cannot be set back.
  time_t changed_s;
  long changed_ns;
};

struct TrustAnchors::Loaded {
  bool IsCurrent(const std::string& path) const {
    const FileDescriptor directory =
        OpenAt(AT_FDCWD, path.c_str(), O_DIRECTORY);
    struct stat status {};
    // The directory's own stamp tells of files that came, went or were
    // renamed.
    return reusable && directory.valid() &&
           ::fstat(directory.get(), &status) == 0 &&
           Stamp(status) == *directory_stamp &&
           std::all_of(files.begin(), files.end(), [&](const auto& file) {
             return ::fstatat(directory.get(), file.first.c_str(), &status,
                              AT_SYMLINK_NOFOLLOW) == 0 &&
                    Stamp(status) == file.second;
           });
  }

  std::shared_ptr<TrustSet> trusted;
  std::optional<Stamp> directory_stamp;
  std::vector<std::pair<std::string, Stamp>> files;
  // All stamps are old enough for a later change to be seen in them.
  bool reusable = false;
};

std::shared_ptr<const TrustSet> TrustAnchors::Current() {
  const std::lock_guard lock(mutex_);
  if (!loaded_ || !loaded_->IsCurrent(directory_)) {
    loaded_ = std::make_shared<const Loaded>(Load());
  }
  return loaded_->trusted;
}

TrustAnchors::Loaded TrustAnchors::Load() const {
  const ScopedErrorMark mark;
  Loaded loaded;
  StorePtr store(X509_STORE_new());
  if (!store) return loaded;
  loaded.trusted = std::make_shared<TrustSet>();
  loaded.trusted->store = std::move(store);

  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  struct stat status {};
  const auto stamp = [&] {
    const Stamp made(status);
    if (made.changed_s >= now.tv_sec - kClockTick) loaded.reusable = false;
    return made;
  };

  FileDescriptor descriptor = OpenAt(AT_FDCWD, directory_.c_str(), O_DIRECTORY);
  if (!descriptor.valid() || ::fstat(descriptor.get(), &status) != 0 ||
      !IsSafe(status)) {
    return loaded;
  }
  const int directory_descriptor = descriptor.get();
  const Directory directory(::fdopendir(directory_descriptor));
  if (!directory.valid()) return loaded;
  std::ignore = descriptor.release();  // The stream's now.

  loaded.reusable = true;
  loaded.directory_stamp = stamp();
  while (const dirent* const entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (::fstatat(directory_descriptor, name.c_str(), &status,
                  AT_SYMLINK_NOFOLLOW) != 0) {
      loaded.reusable = false;
      continue;
    }
    const Stamp seen = stamp();
    loaded.files.emplace_back(name, seen);
    if (!S_ISREG(status.st_mode) || !IsSafe(status) ||
        status.st_size > kMaxAnchorFileSize) {
      continue;
    }
    const FileDescriptor file = OpenAt(directory_descriptor, name.c_str(), 0);
    std::vector<std::byte> bytes(static_cast<size_t>(status.st_size));
    if (!file.valid() || ::fstat(file.get(), &status) != 0 ||
        Stamp(status) != seen || !ReadAt(file.get(), 0, bytes)) {
      loaded.reusable = false;
      continue;
    }
    AddAll(*context_, bytes, *loaded.trusted);
  }
  return loaded;
}

}  // namespace zu::platform
