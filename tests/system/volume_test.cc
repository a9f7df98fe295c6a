// Volumes: real mounts in memory, which the mount table and the tree of block
// devices show as what the tests want.

#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <filesystem>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

// In the place of the C library's: directories "folds" fold case, for which
// only special file systems have a flag.
extern "C" [[gnu::visibility("default")]] int ioctl(int file,
                                                    unsigned long request,
                                                    ...) noexcept {
  va_list list;
  va_start(list, request);
  int* const flags = va_arg(list, int*);
  va_end(list);
  if (request != FS_IOC_GETFLAGS) return -1;
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  const bool folds = std::filesystem::read_symlink(path).filename() == "folds";
  *flags = FS_NOATIME_FL | (folds ? FS_CASEFOLD_FL : 0);
  return 0;
}

// Answers as kernels before 5.8 do, on demand: these know no numbers of mounts.
static bool g_before_5_8 = false;
extern "C" [[gnu::visibility("default")]] int statx(
    int directory, const char* path, int flags, unsigned mask,
    struct statx* status) noexcept {
  const long result =
      ::syscall(SYS_statx, directory, path, flags, mask, status);
  if (g_before_5_8) {
    status->stx_mask &= ~STATX_MNT_ID;
    status->stx_mnt_id = 0;
  }
  return static_cast<int>(result);
}

namespace {

namespace fs = std::filesystem;
using zu::test::WriteFile;

constexpr char kTable[] = "/proc/self/mountinfo";
constexpr char kVolume[] = "/tmp/volume";
constexpr char kFile[] = "/tmp/volume/file";
constexpr char kServer[] = "/tmp/server";
const fs::path kBlockDevices = "/sys/dev/block";

class VolumeTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    for (const fs::path& point :
         {fs::path(kVolume), fs::path(kServer), kBlockDevices}) {
      fs::create_directories(point);
      ASSERT_EQ(::mount("tmpfs", point.c_str(), "tmpfs", 0, nullptr), 0);
    }
    WriteFile(kFile, "");
    WriteFile("/tmp/table", "");
    ASSERT_EQ(::mount("/tmp/table", kTable, nullptr, MS_BIND, nullptr), 0);
  }
  void TearDown() override {
    for (const char* point : {kTable, kVolume, kServer, "/sys/dev/block"}) {
      ::umount2(point, MNT_DETACH);
    }
  }

  // The mount table has "number type source options" for the volume, and the
  // server's directory is a server's.
  static void SetTable(const std::string& volume) {
    std::string text;
    for (const auto& [point, row] :
         {std::pair(kVolume, volume), {kServer, "0:9 nfs server:/x rw"}}) {
      struct statx status;
      EXPECT_EQ(::statx(AT_FDCWD, point, 0, STATX_MNT_ID, &status), 0);
      const std::string id = std::to_string(status.stx_mnt_id);
      const size_t space = row.find(' ');
      text.append(id).append("0 1 0:9 / /other rw - nfs hfs rw\n");
      text.append(id).append(" 1 ").append(row, 0, space).append(" / ");
      text.append(point).append(" rw,noatime shared:1 master:2 -");
      text.append(row, space).append("\n");
    }
    WriteFile("/tmp/table", text);
  }
};

TEST_F(VolumeTest, TypeAndOptionsTell) {
  const struct {
    const char* row;
    uint8_t local;
    int64_t case_sensitive;
  } cases[] = {
      {"0:9 nfs4 server:/export rw,vers=4.2", 0, 1},
      {"0:9 cifs //server/nocase rw,vers=3", 0, 1},
      {"0:9 cifs //server/share rw,nocase,vers=3", 0, 0},
      {"0:9 fuse.sshfs user@host: rw", 0, 1},
      {"0:9 fuse anything rw", 0, 1},
      {"0:9 fusectl fusectl rw", 1, 1},
      {"0:9 overlay nfs rw,lowerdir=/nfs", 1, 1},
      {"8:1 fuseblk /dev/sda1 rw", 1, 1},
      {"8:1 vfat /dev/sda1 rw,check=r,errors=remount-ro", 1, 0},
      {"8:1 vfat /dev/sda1 rw,check=s", 1, 1},
  };
  for (const auto& c : cases) {
    SetTable(c.row);
    for (const char* path : {kVolume, kFile}) {
      g_before_5_8 = path == kFile;
      EXPECT_EQ(ZuIsParentPathLocal(path), c.local) << c.row;
      EXPECT_EQ(ZuIsVolumeCaseSensitive(path), c.case_sensitive) << c.row;
    }
    g_before_5_8 = false;
    EXPECT_EQ(isParentPathLocal("/tmp/volume/none"), 1) << c.row;
  }
  for (const char* path : {"/usr", "/", "/dev/", "\xFF"}) {
    EXPECT_EQ(ZuIsParentPathLocal(path), 1) << path;
  }
  EXPECT_EQ(ZuIsParentPathLocal(nullptr), 1);
  EXPECT_EQ(ZuIsParentPathLocal("/dev"), 0);
}

TEST_F(VolumeTest, AnImageIsWhereItsFileIs) {
  constexpr char kImage[] = "/tmp/server/image\n";
  WriteFile("/tmp/server/image", "");
  fs::create_directories(kBlockDevices / "7:77/loop77p1");
  fs::create_directory_symlink("7:77/loop77p1", kBlockDevices / "259:7");
  // A logical volume on an encrypted partition of the image, and a circle, with
  // more ways through it than there is time for.
  for (const auto& [upper, lower] :
       {std::pair("253:0", "253:1"), {"253:1", "259:7"}, {"253:9", "253:9"}}) {
    const fs::path slaves = kBlockDevices / upper / "slaves";
    fs::create_directories(slaves);
    for (const char* part : {"1", "2", "3", "4", "5", "6", "7", "8"}) {
      fs::create_directory_symlink(fs::path("../..") / lower, slaves / part);
    }
  }
  // Only real roots can make it.
  const bool made = ::mknod("/dev/loop77", S_IFBLK | 0600, makedev(7, 77)) == 0;
  const struct {
    const char* row;
    const char* backing_file;
    uint8_t local;
  } cases[] = {
      {"7:77 ext4 /dev/loop77 rw", kImage, 0},
      {"7:77 ext4 /dev/loop77 rw", "/tmp/server/image (deleted)\n", 0},
      {"7:77 ext4 /dev/loop77 rw", "/tmp/server/no/image\n", 1},
      {"7:77 ext4 /dev/loop77 rw", "/tmp/image\n", 1},
      {"253:0 xfs /dev/mapper/volume rw", kImage, 0},
      {"253:9 xfs /dev/mapper/endless rw", kImage, 1},
      {"0:60 btrfs /dev/loop77 rw", kImage, made ? uint8_t{0} : uint8_t{1}},
      {"0:60 btrfs /dev/null rw", kImage, 1},
  };
  for (const auto& c : cases) {
    WriteFile(kBlockDevices / "7:77/loop/backing_file", c.backing_file);
    SetTable(c.row);
    EXPECT_EQ(ZuIsParentPathLocal(kFile), c.local) << c.row << c.backing_file;
  }
}

TEST_F(VolumeTest, DirectoriesFoldCase) {
  WriteFile("/tmp/volume/folds/file", "");
  fs::create_directory("/tmp/volume/folds/plain");
  fs::create_symlink("folds/file", "/tmp/volume/link");
  for (const auto& [path, case_sensitive] :
       {std::pair("/tmp/volume/folds/plain", 1),
        {"/tmp/volume/link", 0},
        {"/tmp/volume/folds", 0},
        {static_cast<const char*>(nullptr), -1},
        {"/tmp/volume/none", -1}}) {
    EXPECT_EQ(ZuIsVolumeCaseSensitive(path), case_sensitive);
  }
  EXPECT_EQ(errno, ENOENT);
  // Opening a directory takes rights: only where it can have the flag.
  for (const auto& [row, case_sensitive] :
       {std::pair("8:1 ext4 /dev/sda1 rw", 0), {"8:1 xfs /dev/sda1 rw", 1}}) {
    SetTable(row);
    EXPECT_EQ(ZuIsVolumeCaseSensitive("/tmp/volume/folds"), case_sensitive);
  }
}

}  // namespace
