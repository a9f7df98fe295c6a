#include "platform/volume.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

#include "platform/linux/mount_table.h"
#include "platform/linux/text_file.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;

// File systems whose files are another machine's, as the mount table has their
// names; from a virtual machine, its host is one. An automounter's directories
// are places of what it will mount. File systems on network block devices are
// not here: the volume is this machine's own. Nor are those on top of other
// directories (overlay, ecryptfs): they read as this machine's own, even where
// a directory below is a server's, since the table does not reliably tell.
constexpr std::string_view kRemoteTypes[] = {
    "9p",    "afs",    "autofs", "beegfs",   "ceph",   "cifs",   "coda",
    "gpfs",  "lustre", "ncpfs",  "nfs",      "nfs4",   "panfs",  "prl_fs",
    "pvfs2", "smb3",   "vboxsf", "virtiofs", "vmhgfs", "wekafs",
};

// File systems that fold case as a whole.
struct CaseRule {
  std::string_view type;
  bool folds;
  std::string_view other_way;  // The mount option that turns it round, if any.
};
constexpr CaseRule kCaseRules[] = {
    {"vfat", true, "check=s"},
    {"msdos", true, {}},
    {"exfat", true, {}},
    {"ntfs", true, "case_sensitive"},
    {"ntfs3", false, "nocase"},
    // A volume can be made case-sensitive, which only its header tells; hardly
    // any is.
    {"hfsplus", true, {}},
    {"hfs", true, {}},
    {"iso9660", false, "check=r"},
    {"cifs", false, "nocase"},
    {"smb3", false, "nocase"},
};

// File systems that can fold case by directory, which has a flag then.
constexpr std::string_view kFlaggingTypes[] = {"bcachefs", "ext4", "f2fs",
                                               "tmpfs"};

struct Place {
  bool is_directory = false;
  // Absent when the mount table does not have it (behind a plain chroot, for
  // instance) or cannot be read.
  std::optional<Mount> mount = {};
};

template <typename List, typename Value>
bool Contains(const List& list, const Value& value) {
  return std::ranges::find(list, value) != std::end(list);
}

// The number in the mount table of the mount that the file lies on; empty when
// that cannot be told.
std::string ReadMountNumber(const char* path) {
  const FileDescriptor file(::open(path, O_PATH | O_CLOEXEC));
  std::istringstream fields(ReadTextFile(
      ("/proc/self/fdinfo/" + std::to_string(file.get())).c_str()));
  std::string number;
  for (std::string name; fields >> name;) {
    if (name == "mnt_id:" && fields >> number) break;
  }
  return number;
}

// Absent, with errno, when there is no such path. Nothing that a server would
// have to be asked for is wanted.
std::optional<Place> Examine(const char* path) {
  struct statx status;
  if (::statx(AT_FDCWD, path, AT_STATX_DONT_SYNC, STATX_TYPE | STATX_MNT_ID,
              &status) != 0) {
    return std::nullopt;
  }
  // Kernels before 5.8 do not fill in the mount. Their other way takes a
  // descriptor, and is closed to some processes that may not be traced.
  const bool has_number = (status.stx_mask & STATX_MNT_ID) != 0;
  return Place{.is_directory = S_ISDIR(status.stx_mode),
               .mount = FindMount(has_number ? std::to_string(status.stx_mnt_id)
                                             : ReadMountNumber(path))};
}

bool IsRemote(const Mount& mount) {
  // Behind FUSE stands a program, which may have its files from anywhere. The
  // name of its kind ("fuse.sshfs") is free for its user to choose, so that no
  // name can speak for it. On a block device the type is "fuseblk".
  return mount.type == "fuse" || mount.type.starts_with("fuse.") ||
         Contains(kRemoteTypes, mount.type);
}

bool FoldsCase(const Mount& mount) {
  const auto rule = std::ranges::find(kCaseRules, mount.type, &CaseRule::type);
  if (rule == std::end(kCaseRules)) return false;
  std::istringstream options(mount.options);
  for (std::string option; std::getline(options, option, ',');) {
    if (option == rule->other_way) return !rule->folds;
  }
  return rule->folds;
}

// The file behind the block device that sysfs has at `device`, be it a loop
// device, a partition of one, or built from such devices (encryption, logical
// volumes). Looks at no more than `visits` directories, and takes them off:
// devices can share what they are built from, so that the ways through them
// double with each layer.
std::optional<std::string> FindBackingFile(const fs::path& device,
                                           int& visits) {
  // A partition's directory lies in that of its disk.
  for (const fs::path& disk : {device, device / ".."}) {
    if (visits-- <= 0) return std::nullopt;
    std::string path = ReadTextFile((disk / "loop/backing_file").c_str());
    // Behind the name of an unlinked file stands " (deleted)": then that file
    // cannot be found, but its folder can. A file outside of our tree has no
    // absolute name.
    if (path.starts_with('/') && path.ends_with('\n')) {
      path.pop_back();
      return path;
    }
    std::error_code error;
    for (fs::directory_iterator part(disk / "slaves", error), end; part != end;
         part.increment(error)) {
      auto found = FindBackingFile(part->path(), visits);
      if (found) return found;
    }
  }
  return std::nullopt;
}

}  // namespace

int64_t ReadCaseSensitivity(const char* path) {
  const std::optional<Place> place = Examine(path);
  if (!place) return -1;
  if (place->mount && !Contains(kFlaggingTypes, place->mount->type)) {
    return FoldsCase(*place->mount) ? 0 : 1;
  }
  fs::path directory = path;
  if (!place->is_directory) {
    std::error_code error;
    directory = fs::canonical(directory, error).parent_path();
    if (error) {
      errno = error.value();
      return -1;
    }
  }
  const FileDescriptor opened(
      ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.valid()) return -1;
  int flags = 0;  // The request's number says long, the kernel stores an int.
  // A file system without such flags folds nothing.
  return ::ioctl(opened.get(), FS_IOC_GETFLAGS, &flags) == 0 &&
                 (flags & FS_CASEFOLD_FL) != 0
             ? 0
             : 1;
}

std::optional<bool> IsLocalVolume(const std::string& path) {
  const std::optional<Place> place = Examine(path.c_str());
  if (!place) return std::nullopt;
  return !place->mount || !IsRemote(*place->mount);
}

std::optional<std::string> ReadImageFile(const std::string& path) {
  std::optional<Place> place = Examine(path.c_str());
  if (!place || !place->mount) return std::nullopt;
  Mount& mount = *place->mount;
  if (mount.major == 0) {
    // Some file systems (btrfs) have numbers of their own, and name a device.
    struct stat source;
    if (!mount.source.starts_with('/') ||
        ::stat(mount.source.c_str(), &source) != 0 ||
        !S_ISBLK(source.st_mode)) {
      return std::nullopt;
    }
    mount.major = major(source.st_rdev);
    mount.minor = minor(source.st_rdev);
  }
  int visits = 256;  // Real stacks need a few.
  return FindBackingFile("/sys/dev/block/" + std::to_string(mount.major) + ":" +
                             std::to_string(mount.minor),
                         visits);
}

}  // namespace zu::platform
